// Lines of rates over time, drawn by d3: one a kind, with a scale, a legend and the values under the pointer.
import { KINDS } from "./words.js";

const { d3 } = window; // a script of its own, which is no module
const HEIGHT = 128;
const EDGE = { left: 40, right: 14, top: 8, bottom: 20 };

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
    const last = series[0].length - 1;
    const x = d3.scale.linear().domain([0, last]).range([EDGE.left, width - EDGE.right]);
    const top = Math.max(0.4, d3.max(series.flat()));
    const y = d3.scale.linear().domain([0, top]).nice(4).range([HEIGHT - EDGE.bottom, EDGE.top]);

    const svg = d3.select(this.#place.ownerDocument.createElementNS(d3.ns.prefix.svg, "svg"));
    svg.attr({ viewBox: `0 0 ${width} ${HEIGHT}`, width, height: HEIGHT, role: "img" });
    this.#drawScales(svg, x, y, Math.round(((last + 1) * rates.step) / 60));
    const area = d3.svg.area().x((_, step) => x(step)).y0(y(0)).y1(y);
    const line = d3.svg.line().x((_, step) => x(step)).y(y);
    // The first of the kinds lies on top.
    for (const i of d3.range(kinds.length).reverse()) {
      svg.append("path").datum(series[i]).attr({ class: `area ${kinds[i]}`, d: area });
      svg.append("path").datum(series[i]).attr({ class: `line ${kinds[i]}`, d: line });
    }
    const at = this.#pointer === null ? null : Math.min(last, Math.max(0, Math.round(x.invert(this.#pointer))));
    if (at !== null) svg.append("line").attr({ class: "pointer", x1: x(at), x2: x(at), y1: EDGE.top, y2: y(0) });
    const told = series.map((values) => (at === null ? d3.mean(values.slice(-60 / rates.step)) : values[at]));
    const when = at === null ? "in the last minute" : `${Math.round(((last - at) * rates.step) / 6) / 10} min ago`;
    svg.attr("aria-label", kinds.map((kind, i) => `${KINDS[kind]}: ${short(told[i])} a second`).join(", ") + ` ${when}`);
    this.#place.replaceChildren(svg.node());
    this.#tell(kinds, told, when);
  }

  #drawScales(svg, x, y, minutes) {
    const levels = d3.svg.axis().scale(y).orient("left").ticks(4).tickFormat(short);
    levels.tickSize(EDGE.left + EDGE.right - this.#place.clientWidth, 0);
    svg.append("g").attr({ class: "scale", transform: `translate(${EDGE.left},0)` }).call(levels);
    const ago = d3.range(0, minutes + 1, 5);
    const [first, last] = x.domain();
    const times = d3.svg.axis().scale(x).orient("bottom").tickSize(0).tickPadding(6);
    times.tickValues(ago.map((minute) => last - ((last - first) * minute) / minutes));
    times.tickFormat((_, i) => (ago[i] === 0 ? "now" : `${ago[i]} min ago`));
    svg.append("g").attr({ class: "scale", transform: `translate(0,${HEIGHT - EDGE.bottom})` }).call(times);
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
