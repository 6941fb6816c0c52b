// The page's requests to its server. A preview comes back as a little-endian uint32 N, N bytes
// of JSON, zeros up to a multiple of 4, then RGBA pixels, rows from the bottom up: float32, or
// 8-bit (as a file holds them) when asked for "uint8";
// everything else is JSON. Errors of the server come as {"error": MESSAGE}.
export async function postJson(path, body, signal) {
  const response = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
    signal,
  });
  return { status: response.status, response };
}

export async function requestJson(path, body) {
  const { response } = body === undefined ? { response: await fetch(path) } : await postJson(path, body);
  const reply = await response.json();
  if (!response.ok) throw new Error(reply.error || `request failed (${response.status})`);
  return reply;
}

export async function requestPreview(body, signal) {
  const { response } = await postJson("/api/render", body, signal);
  const bytes = await response.arrayBuffer();
  if (!response.ok) throw new Error(JSON.parse(new TextDecoder().decode(bytes)).error);
  const length = new DataView(bytes).getUint32(0, true);
  const info = JSON.parse(new TextDecoder().decode(new Uint8Array(bytes, 4, length)));
  const offset = Math.ceil((4 + length) / 4) * 4;
  const Pixels = info.pixels === "uint8" ? Uint8Array : Float32Array;
  info.pixels = new Pixels(bytes, offset, info.width * info.height * 4);
  return info;
}
