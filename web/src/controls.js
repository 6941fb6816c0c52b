// The sliders: one per float parameter, over its declared range (else one around its value, as
// the server says), and one for the time (the frames of --frames, else 0 to 100). A slider keeps
// the value the artist chose while the script is edited; it is rebuilt only when the script
// declares the parameters anew.
export class Controls {
  constructor(container, onChange) {
    Object.assign(this, { container, onChange, values: {}, signature: "" });
  }

  // `parameters`: [{name, label, value, min, max}] in the parameter list's order.
  update(parameters) {
    const signature = JSON.stringify(parameters.map((p) => [p.name, p.label, p.min, p.max, p.value]));
    if (signature === this.signature) return;
    this.signature = signature;
    this.container.replaceChildren();
    const kept = {};
    for (const p of parameters) {
      kept[p.name] = p.name in this.values ? this.values[p.name] : p.value;
      this.container.append(this.slider(p.name, p.label, p.min, p.max, kept[p.name], (v) => {
        this.values[p.name] = v;
        this.onChange();
      }));
    }
    this.values = kept;
  }

  slider(name, label, min, max, value, changed) {
    const row = document.createElement("label");
    row.className = "slider";
    row.dataset.name = name;
    const title = document.createElement("span");
    title.textContent = label;
    const input = document.createElement("input");
    Object.assign(input, { type: "range", min, max, step: (max - min) / 1000, value });
    const shown = document.createElement("output");
    shown.textContent = Number(value).toPrecision(4);
    input.addEventListener("input", () => {
      shown.textContent = Number(input.value).toPrecision(4);
      changed(Number(input.value));
    });
    row.append(title, input, shown);
    return row;
  }
}

export function timeSlider(container, session, onChange) {
  const [first, last] = session.frames || [Math.min(0, session.time), Math.max(100, session.time)];
  const controls = new Controls(container, () => onChange(controls.values.t));
  controls.update([{ name: "t", label: session.frames ? "frame" : "time t", value: session.time, min: first, max: last }]);
  container.querySelector("input").step = 1;
  return controls;
}
