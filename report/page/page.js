"use strict";
const data = JSON.parse(document.getElementById("data").textContent);
const byId = (id) => document.getElementById(id);
const charts = [];
const end = data.seconds;
let shown = [0, end];

const element = (name, text, attributes = {}) => {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  return made;
};
const two = (number) => String(number).padStart(2, "0");
const clock = (seconds) => {
  const thousandths = Math.round(seconds * 1000);
  const s = Math.floor(thousandths / 1000);
  return `${two(Math.floor(s / 3600))}:${two(Math.floor(s / 60) % 60)}:${two(s % 60)}.${String(thousandths % 1000).padStart(3, "0")}`;
};
const colour = (name) => () => getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();

// Zooming one chart zooms all, and the lanes with them.
function show(from, to) {
  const width = Math.min(Math.max(to - from, Math.min(end, 4 / data.rate)), end);
  const begin = Math.min(Math.max(from, 0), end - width);
  shown = [begin, begin + width];
  for (const chart of charts) chart.setScale("x", { min: shown[0], max: shown[1] });
  for (const place of document.querySelectorAll("#lanes .lane span")) {
    place.style.left = `${(100 * (place.dataset.begin - shown[0])) / width}%`;
    place.style.width = `${(100 * (place.dataset.end - place.dataset.begin)) / width}%`;
  }
  placeGops(width);
  byId("range").textContent = `${clock(shown[0])} to ${clock(shown[1])}`;
}
// Of a long stream only those in sight are there, and none where they would be too narrow to tell apart.
function placeGops(width) {
  const lane = byId("gop-lane"), most = 150, { t, types, timecode } = data.gops;
  const inSight = t.map((_, n) => n).filter((n) => t[n] < shown[1] && (n + 1 < t.length ? t[n + 1] : end) > shown[0]);
  byId("gop-note").hidden = inSight.length <= most;
  lane.hidden = inSight.length > most;
  lane.replaceChildren(...(lane.hidden ? [] : inSight.map((n) => {
    const to = n + 1 < t.length ? t[n + 1] : end;
    const place = element("span", timecode[n] || types[n], { title: `${clock(t[n])}  ${timecode[n]}  ${types[n]}` });
    place.style.left = `${(100 * (t[n] - shown[0])) / width}%`;
    place.style.width = `${(100 * (to - t[n])) / width}%`;
    return place;
  })));
}
function zoom(factor) {
  const middle = (shown[0] + shown[1]) / 2, half = ((shown[1] - shown[0]) / 2) * factor;
  show(middle - half, middle + half);
}
const keys = {
  "+": () => zoom(0.5), "=": () => zoom(0.5), "-": () => zoom(2), "0": () => show(0, end),
  ArrowLeft: () => show(shown[0] - (shown[1] - shown[0]) / 4, shown[1] - (shown[1] - shown[0]) / 4),
  ArrowRight: () => show(shown[0] + (shown[1] - shown[0]) / 4, shown[1] + (shown[1] - shown[0]) / 4),
};

// `zero`: whether the scale begins there; else it has what `margin` leaves around the values.
function draw(host, label, series, rows, { zero = true, margin = 0.5 } = {}) {
  const axis = { stroke: colour("quiet"), grid: { stroke: colour("line"), width: 1 }, ticks: { stroke: colour("line"), width: 1 } };
  const scale = (least, most) => (zero ? [Math.min(least, 0), most * 1.05] : [least - margin, most + margin]);
  const chart = new uPlot({
    width: host.clientWidth, height: 220, series: [{ label: "Time", value: (_, v) => (v === null ? "" : clock(v)) }, ...series],
    cursor: { sync: { key: "time" }, drag: { x: true, y: false } },
    scales: { x: { time: false, range: () => shown }, y: { range: (_, least, most) => scale(least, most) } },
    axes: [{ ...axis, values: (_, ticks) => ticks.map((t) => clock(t).replace(/^00:/, "").replace(/\.000$/, "")) }, { ...axis, label, size: 70, stroke: colour("quiet") }],
    hooks: { setSelect: [(u) => {
      if (u.select.width > 4) show(u.posToVal(u.select.left, "x"), u.posToVal(u.select.left + u.select.width, "x"));
      u.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
    }] },
  }, rows, host);
  charts.push(chart);
  host.addEventListener("dblclick", () => show(0, end));
}

function table(id, heads, rows) {
  const made = element("table"), head = element("tr");
  for (const text of heads) head.append(element("th", text, { scope: "col" }));
  made.append(element("thead"), element("tbody"));
  made.tHead.append(head);
  for (const row of rows) {
    const line = element("tr");
    for (const text of row) line.append(element("td", text));
    made.tBodies[0].append(line);
  }
  byId(id).append(made);
}

byId("name").textContent = data.name;
document.title = `${data.name} - gsve`;
byId("verdict").classList.toggle("bad", !data.verdict.good);
byId("verdict").prepend(element("strong", data.verdict.text));
for (const line of data.verdict.lines) byId("reasons").append(element("li", line));
for (const [label, value] of data.facts) {
  const place = element("div");
  place.append(element("dt", label), element("dd", value));
  byId("facts").append(place);
}
if (data.step > 1) byId("step").textContent = `Each point stands for ${data.step} pictures: the largest of each type.`;

const points = { show: true, size: 4 };
const pictureSeries = [["I", "i"], ["P", "p"], ["B", "b"]].map(([type, name], at) => ({
  label: `${type}, kbit`, stroke: colour(name), fill: colour(name), width: 1, paths: () => null, points: { ...points, size: 7 - 2 * at },
}));
draw(byId("pictures"), "kbit a picture", pictureSeries, [data.pictures.t, data.pictures.I, data.pictures.P, data.pictures.B]);
const line = { width: 2, points: { show: false } };
const rateSeries = [{ ...line, label: "Over one second, kbit/s", stroke: colour("rate") }];
const rateRows = [data.bitrate.t, data.bitrate.kbits];
if (data.bitrate.declared > 0) {
  rateSeries.push({ ...line, label: "Declared, kbit/s", stroke: colour("limit"), dash: [8, 6] });
  rateRows.push(data.bitrate.t.map(() => data.bitrate.declared));
}
draw(byId("bitrate"), "kbit/s", rateSeries, rateRows);
if (data.buffer) {
  draw(byId("buffer"), "kbit", [
    { ...line, label: "Before a picture leaves, kbit", stroke: colour("buffer") },
    { ...line, label: "After it, kbit", stroke: colour("b"), width: 1, dash: [3, 3] },
    { ...line, label: "Size, kbit", stroke: colour("limit"), dash: [8, 6] },
  ], [data.buffer.t, data.buffer.before, data.buffer.after, data.buffer.t.map(() => data.buffer.size)]);
} else byId("buffer-section").hidden = true;

if (data.quality) {
  draw(byId("psnr"), "dB", [{ ...line, label: "PSNR, dB", stroke: colour("p") }], [data.quality.t, data.quality.psnr], { zero: false });
  draw(byId("ssim"), "SSIM", [{ ...line, label: "SSIM", stroke: colour("i") }], [data.quality.t, data.quality.ssim], { zero: false, margin: 0.005 });
} else byId("quality-section").hidden = true;
for (const sound of data.sound) {
  const figure = element("figure", undefined, { tabindex: 0, "aria-label": `Short-term loudness of ${sound.name}` });
  const chart = element("div", undefined, { class: "chart" });
  figure.append(chart);
  byId("sound").append(element("p", sound.name, { class: "note" }), figure);
  if (sound.t.length === 0) figure.replaceWith(element("p", "Too short or too quiet for a short-term loudness.", { class: "note" }));
  else draw(chart, "LUFS", [{ ...line, label: "Short-term loudness, LUFS", stroke: colour("rate") }], [sound.t, sound.lufs], { zero: false });
}
byId("sound-section").hidden = data.sound.length === 0;

for (const service of [...new Set(data.captions.map((c) => c.service))]) {
  const lane = element("div", undefined, { class: "lane", role: "img", "aria-label": `Captions of ${service}, listed below` });
  for (const caption of data.captions.filter((c) => c.service === service)) {
    const place = element("span", caption.text.replace(/\n/g, " / "), { title: caption.text });
    place.dataset.begin = caption.begin;
    place.dataset.end = caption.end;
    lane.append(place);
  }
  byId("lanes").append(element("p", service, { class: "note" }), lane);
}
byId("no-captions").hidden = data.captions.length > 0;
table("caption-table", ["Service", "From", "To", "Text"], data.captions.map((c) => [c.service, clock(c.begin), clock(c.end), c.text]));
table("finding-table", ["Time", "What"], data.findings.map((f) => [f.t === null ? "all of it" : clock(f.t), f.text]));
byId("no-findings").hidden = data.findings.length > 0;
byId("finding-table").hidden = data.findings.length === 0;
const listed = 500, gops = data.gops, more = gops.t.length + gops.more - listed;
const gopRows = gops.t.slice(0, listed).map((t, n) => [clock(t), gops.types[n], gops.closed[n] ? "yes" : "no", gops.timecode[n]]);
if (more > 0) gopRows.push([clock(gops.t[listed] ?? end), `and ${more} more`, "", ""]);
table("gop-table", ["Time", "Pictures", "Closed", "Time code"], gopRows);

for (const figure of document.querySelectorAll("figure"))
  figure.addEventListener("keydown", (event) => {
    if (!keys[event.key]) return;
    event.preventDefault();
    keys[event.key]();
  });
byId("in").onclick = keys["+"];
byId("out").onclick = keys["-"];
byId("all").onclick = keys["0"];
addEventListener("resize", () => {
  for (const chart of charts) chart.setSize({ width: chart.root.parentElement.clientWidth, height: 220 });
});
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => charts.forEach((chart) => chart.redraw()));
show(0, end);
document.documentElement.dataset.ready = "yes";
