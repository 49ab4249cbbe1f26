// The last minute of a number, and its picture.

import {element, setAttribute, svg} from "./dom.js";

const samplesKept = 67; // one with each poll
const width = 120;
const height = 20;

class Series {
  constructor() {
    this.samples = new Float64Array(samplesKept);
    this.size = 0;
  }

  push(value) {
    if (this.size === samplesKept) {
      this.samples.copyWithin(0, 1);
      this.samples[samplesKept - 1] = value;
    } else {
      this.samples[this.size++] = value;
    }
  }
}

// Series by key. What was not pushed since the last forget() is forgotten.
export class History {
  constructor() {
    this.series = new Map();
    this.fresh = new Set();
  }

  push(key, value) {
    let series = this.series.get(key);
    if (!series) this.series.set(key, series = new Series());
    series.push(value);
    this.fresh.add(key);
  }

  get(key) {
    return this.series.get(key);
  }

  forget() {
    for (const key of this.series.keys()) {
      if (!this.fresh.has(key)) this.series.delete(key);
    }
    this.fresh.clear();
  }

  clear() {
    this.series.clear();
  }
}

// The newest sample is at the right; the height is the highest of the minute.
function pathOf(series) {
  const {samples, size} = series;
  let highest = 0;
  for (let index = 0; index < size; ++index) highest = Math.max(highest, samples[index]);
  const step = width / (samplesKept - 1);
  let path = "";
  for (let index = 0; index < size; ++index) {
    const x = width - (size - 1 - index) * step;
    const y = highest > 0 ? height - 1 - (height - 2.5) * samples[index] / highest : height - 1;
    path += `${index ? "L" : "M"}${x.toFixed(1)} ${y.toFixed(1)}`;
  }
  return path;
}

// Hidden from screen readers: the number stands beside it.
export class Sparkline {
  constructor() {
    this.line = svg("path", {class: "line"});
    this.area = svg("path", {class: "area"});
    this.root = element("span", {class: "spark", "aria-hidden": "true"},
      svg("svg", {viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: "none"}, this.area, this.line));
  }

  draw(series) {
    const path = series && series.size > 1 ? pathOf(series) : "";
    setAttribute(this.line, "d", path);
    const left = series ? (width - (series.size - 1) * width / (samplesKept - 1)).toFixed(1) : 0;
    setAttribute(this.area, "d", path && `${path}L${width} ${height}L${left} ${height}Z`);
  }
}
