// Lines of rates over time, as SVG: one a kind, with a scale, a legend and the values under the pointer.
import { KINDS } from "./words.js";

const SVG = "http://www.w3.org/2000/svg";
const HEIGHT = 128;
const EDGE = { left: 40, right: 12, top: 8, bottom: 20 };

function part(name, attributes, text) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== undefined) element.textContent = text;
  return element;
}

// The next of 1, 2, 5, 10, 20, ... that is not below.
function ceiling(value) {
  const power = 10 ** Math.floor(Math.log10(Math.max(value, 0.1)));
  return [1, 2, 5, 10].map((step) => step * power).find((limit) => limit >= value);
}

const short = (value) => (value >= 100 ? value.toFixed(0) : String(Number(value.toFixed(value < 1 ? 2 : 1))));

export class Chart {
  #place;
  #legend;
  #rates = null;
  #pointer = null;

  constructor(place, legend) {
    this.#place = place;
    this.#legend = legend;
    new ResizeObserver(() => this.draw()).observe(place);
    place.addEventListener("pointermove", (event) => {
      this.#pointer = event.clientX - place.getBoundingClientRect().left;
      this.draw();
    });
    place.addEventListener("pointerleave", () => {
      this.#pointer = null;
      this.draw();
    });
  }

  set rates(rates) {
    this.#rates = rates;
    this.draw();
  }

  draw() {
    const rates = this.#rates;
    const width = this.#place.clientWidth;
    if (!rates || width < 120) return;
    const kinds = Object.keys(KINDS);
    const series = kinds.map((kind) => rates[kind].map((number) => number / rates.step));
    const steps = series[0].length;
    const top = ceiling(Math.max(0.4, ...series.flat()));
    const x = (step) => EDGE.left + (step * (width - EDGE.left - EDGE.right)) / (steps - 1);
    const y = (value) => HEIGHT - EDGE.bottom - (value * (HEIGHT - EDGE.top - EDGE.bottom)) / top;

    const svg = part("svg", { viewBox: `0 0 ${width} ${HEIGHT}`, width, height: HEIGHT, role: "img" });
    for (const share of [0, 0.5, 1]) {
      const level = y(top * share);
      svg.append(part("line", { class: "grid", x1: EDGE.left, x2: width - EDGE.right, y1: level, y2: level }));
      svg.append(part("text", { class: "scale", x: EDGE.left - 6, y: level + 4, "text-anchor": "end" }, short(top * share)));
    }
    const minutes = Math.round((steps * rates.step) / 60);
    for (let minute = 0; minute <= minutes; minute += 5) {
      const step = (steps - 1) * (1 - minute / minutes);
      const anchor = minute === 0 ? "end" : minute === minutes ? "start" : "middle";
      const label = minute === 0 ? "now" : `${minute} min ago`;
      svg.append(part("text", { class: "scale", x: x(step), y: HEIGHT - 4, "text-anchor": anchor }, label));
    }
    // The first of the kinds lies on top.
    kinds.toReversed().forEach((kind) => {
      const values = series[kinds.indexOf(kind)];
      const points = values.map((value, step) => `${x(step).toFixed(1)},${y(value).toFixed(1)}`);
      const floor = y(0).toFixed(1);
      const area = `${x(0).toFixed(1)},${floor} ${points.join(" ")} ${x(steps - 1).toFixed(1)},${floor}`;
      svg.append(part("polygon", { class: `area ${kind}`, points: area }));
      svg.append(part("polyline", { class: `line ${kind}`, points: points.join(" ") }));
    });
    const at = this.#stepAt(steps, width);
    if (at !== null) svg.append(part("line", { class: "pointer", x1: x(at), x2: x(at), y1: EDGE.top, y2: y(0) }));
    const told = at === null ? series.map((values) => values.slice(-12).reduce((a, b) => a + b, 0) / 12)
                             : series.map((values) => values[at]);
    const when = at === null ? "in the last minute" : `${Math.round(((steps - 1 - at) * rates.step) / 6) / 10} min ago`;
    svg.setAttribute("aria-label", kinds.map((kind, i) => `${KINDS[kind]}: ${short(told[i])} a second`).join(", ") + ` ${when}`);
    this.#place.replaceChildren(svg);
    this.#tell(kinds, told, when);
  }

  #stepAt(steps, width) {
    if (this.#pointer === null) return null;
    const share = (this.#pointer - EDGE.left) / (width - EDGE.left - EDGE.right);
    return Math.min(steps - 1, Math.max(0, Math.round(share * (steps - 1))));
  }

  #tell(kinds, values, when) {
    const items = kinds.map((kind, i) => {
      const item = document.createElement("li");
      const mark = document.createElement("span");
      mark.className = `dot ${kind}`;
      const value = document.createElement("b");
      value.textContent = short(values[i]);
      item.append(mark, `${KINDS[kind]} `, value);
      return item;
    });
    const time = document.createElement("li");
    time.className = "note";
    time.textContent = when;
    this.#legend.replaceChildren(...items, time);
  }
}
