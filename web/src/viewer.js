// The picture: a canvas that holds the rendered pixels (a proxy is stretched to the size of the
// full resolution), zoomed with the wheel about the cursor, panned by dragging, fitted with a
// double click; and the probe, which shows the float RGBA under the cursor and its x, y in the
// engine's pixels (row 0 at the bottom), exactly as rendered.

// The shortest decimal that reads back to the same float32.
export function exactFloat(v) {
  if (Number.isNaN(v)) return "nan";
  if (!Number.isFinite(v)) return v > 0 ? "inf" : "-inf";
  for (let digits = 1; digits < 9; digits++) {
    const text = String(Number(v.toPrecision(digits)));
    if (Math.fround(Number(text)) === v) return text;
  }
  return String(Number(v.toPrecision(9)));
}

export class Viewer {
  constructor(viewport, canvas, probe) {
    Object.assign(this, { viewport, canvas, probe, image: null, zoom: 1, panX: 0, panY: 0, fitted: false });
    this.context = canvas.getContext("2d");
    viewport.addEventListener("wheel", (e) => this.onWheel(e), { passive: false });
    viewport.addEventListener("pointerdown", (e) => this.onDrag(e));
    viewport.addEventListener("pointermove", (e) => this.onProbe(e));
    viewport.addEventListener("dblclick", () => this.fit());
  }

  // `image`: {pixels, width, height, x, y, scaleLevel}; `fullLevel` the scale level of the full
  // resolution, the unit of the display.
  show(image, fullLevel) {
    this.image = image;
    this.stretch = 2 ** (image.scaleLevel - fullLevel);
    const { width, height, pixels } = image;
    if (this.canvas.width !== width || this.canvas.height !== height) {
      this.canvas.width = width;
      this.canvas.height = height;
    }
    const data = this.context.createImageData(width, height);
    const out = data.data;
    // As an 8-bit file holds the values: clamped to [0, 1] and rounded (the array does both, and
    // bytes come so already); the screen puts the top row first, the engine the bottom one.
    const scale = pixels instanceof Float32Array ? 255 : 1;
    for (let row = 0; row < height; row++) {
      let from = (height - 1 - row) * width * 4;
      let to = row * width * 4;
      for (let i = 0; i < width; i++, from += 4, to += 4) {
        out[to] = pixels[from] * scale;
        out[to + 1] = pixels[from + 1] * scale;
        out[to + 2] = pixels[from + 2] * scale;
        out[to + 3] = 255;
      }
    }
    this.context.putImageData(data, 0, 0);
    this.canvas.style.width = `${width * this.stretch}px`;
    this.canvas.style.height = `${height * this.stretch}px`;
    this.canvas.classList.toggle("proxy", this.stretch > 1);
    if (!this.fitted) this.fit();
    this.place();
  }

  fit() {
    if (!this.image) return;
    const w = this.image.width * this.stretch;
    const h = this.image.height * this.stretch;
    const box = this.viewport.getBoundingClientRect();
    this.zoom = Math.min(box.width / w, box.height / h) || 1;
    this.panX = (box.width - w * this.zoom) / 2;
    this.panY = (box.height - h * this.zoom) / 2;
    this.fitted = true;
    this.place();
  }

  actualSize() {
    this.zoomAbout(1 / this.zoom, this.viewport.clientWidth / 2, this.viewport.clientHeight / 2);
  }

  zoomAbout(factor, x, y) {
    const zoom = Math.min(64, Math.max(1 / 64, this.zoom * factor));
    this.panX = x - ((x - this.panX) * zoom) / this.zoom;
    this.panY = y - ((y - this.panY) * zoom) / this.zoom;
    this.zoom = zoom;
    this.place();
  }

  place() {
    this.canvas.style.transform = `translate(${this.panX}px, ${this.panY}px) scale(${this.zoom})`;
    this.canvas.classList.toggle("magnified", this.zoom * this.stretch >= 2);
    document.getElementById("zoom").textContent = `${Math.round(this.zoom * 100)}%`;
  }

  onWheel(e) {
    e.preventDefault();
    const box = this.viewport.getBoundingClientRect();
    this.zoomAbout(Math.exp(-e.deltaY * 0.002), e.clientX - box.left, e.clientY - box.top);
  }

  onDrag(e) {
    const start = { x: e.clientX, y: e.clientY, panX: this.panX, panY: this.panY };
    this.viewport.setPointerCapture(e.pointerId);
    const move = (m) => {
      this.panX = start.panX + m.clientX - start.x;
      this.panY = start.panY + m.clientY - start.y;
      this.place();
    };
    const end = () => {
      this.viewport.removeEventListener("pointermove", move);
      this.viewport.removeEventListener("pointerup", end);
    };
    this.viewport.addEventListener("pointermove", move);
    this.viewport.addEventListener("pointerup", end);
  }

  onProbe(e) {
    const image = this.image;
    if (!image) return;
    const box = this.viewport.getBoundingClientRect();
    const column = Math.floor((e.clientX - box.left - this.panX) / (this.zoom * this.stretch));
    const row = Math.floor((e.clientY - box.top - this.panY) / (this.zoom * this.stretch));
    if (column < 0 || row < 0 || column >= image.width || row >= image.height) {
      this.probe.textContent = "";
      return;
    }
    const y = image.height - 1 - row;
    if (!(image.pixels instanceof Float32Array)) {
      this.probe.textContent = `x ${image.x + column}  y ${image.y + y}   (a proxy: the values show at full resolution)`;
      return;
    }
    const at = (y * image.width + column) * 4;
    const [r, g, b, a] = Array.from(image.pixels.subarray(at, at + 4), exactFloat);
    Object.assign(this.probe.dataset, { x: image.x + column, y: image.y + y, r, g, b, a });
    const scale = this.stretch > 1 ? `  (proxy, 1/${this.stretch} scale)` : "";
    this.probe.textContent = `x ${image.x + column}  y ${image.y + y}   r ${r}  g ${g}  b ${b}  a ${a}${scale}`;
  }
}
