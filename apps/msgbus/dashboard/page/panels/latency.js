// A latency histogram: one bar for each octave, and the usual quantiles.

import {element, setData, setFacts, setText} from "../dom.js";
import * as format from "../format.js";

function quantiles(latency) {
  return [["p50", latency.p50_ns], ["p90", latency.p90_ns], ["p99", latency.p99_ns], ["p99.9", latency.p999_ns],
    ["highest", latency.max_ns]].map(([name, ns]) => [name, latency.samples ? format.duration(ns) : "–"]);
}

// Octaves between the first and the last one that have no sample are shown too, or the scale would jump.
function withEmptyOctaves(octaves) {
  const shown = [];
  for (const octave of octaves) {
    const last = shown[shown.length - 1];
    for (let upto = last ? Math.max(last.upto_ns, 1) * 2 : octave.upto_ns; upto < octave.upto_ns * 0.9; upto *= 2) {
      shown.push({upto_ns: upto, count: 0});
    }
    shown.push(octave);
  }
  return shown;
}

export class Histogram {
  constructor(body) {
    this.facts = element("dl", {class: "quantiles"});
    this.rows = element("tbody");
    this.samples = element("p", {class: "remark"});
    const head = element("thead", {class: "unseen"}, element("tr", {}, element("th", {scope: "col"}, "Up to"),
      element("th", {scope: "col"}, "Share"), element("th", {scope: "col"}, "Values")));
    this.table = element("table", {class: "octaves"}, element("caption", {class: "unseen"}, "Latency by octave"),
      element("colgroup", {}, element("col", {class: "label"}), element("col"), element("col", {class: "share"})), head, this.rows);
    body.append(this.facts, this.table, this.samples);
  }

  update(latency) {
    setFacts(this.facts, quantiles(latency));
    const octaves = withEmptyOctaves(latency.octaves);
    const most = Math.max(1, ...octaves.map((octave) => octave.count));
    while (this.rows.children.length > octaves.length) this.rows.lastElementChild.remove();
    while (this.rows.children.length < octaves.length) this.rows.append(this.makeRow());
    octaves.forEach((octave, index) => {
      const [label, bar, share] = this.rows.children[index].children;
      setText(label, `≤ ${format.duration(octave.upto_ns)}`);
      bar.firstChild.firstChild.style.width = `${(octave.count / most * 100).toFixed(1)}%`;
      setData(bar.firstChild.firstChild, "empty", String(octave.count === 0));
      setText(share, format.short(octave.count));
    });
    setText(this.samples, latency.samples ? `${format.plural(latency.samples, "sample")}: one value in 64.`
      : "No value has been received yet.");
  }

  makeRow() {
    return element("tr", {}, element("th", {scope: "row"}), element("td", {class: "bar", "aria-hidden": "true"},
      element("span", {class: "track"}, element("span", {class: "fill"}))), element("td", {class: "share"}));
  }
}
