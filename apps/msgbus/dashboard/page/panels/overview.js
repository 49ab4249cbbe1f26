// The tiles at the top: the bus as a whole.

import {byId, element, setData, setText} from "../dom.js";
import * as format from "../format.js";
import {Sparkline} from "../history.js";
import {isInTrouble} from "./subscribers.js";

function sum(items, numberOf) {
  return items.reduce((total, item) => total + numberOf(item), 0);
}

// Each tile: a number with its unit, a line below it, the tone, and what its sparkline shows.
const tiles = [
  {label: "Published", unit: "/s", number: (state) => sum(state.topics, (topic) => topic.rates.last_1s),
    line: (state) => `${format.short(state.bus.accepted)} since the start`},
  {label: "Received", unit: "/s", number: (state) => sum(state.subscribers, (each) => each.rates.last_1s),
    line: (state) => `${format.short(state.bus.flows.taken)} since the start`},
  {label: "Unread", unit: "", number: (state) => state.bus.flows.queued + state.bus.flows.offered + state.bus.inbound,
    line: (state) => `${format.short(state.bus.inbound)} inbound, at most ${format.short(state.bus.most_inbound)}`},
  {label: "Dropped", unit: "", number: (state) => state.bus.flows.dropped.total,
    tone: (state) => state.bus.flows.dropped.total > 0 ? "bad" : "",
    line: (state) => format.drops(state.bus.flows.dropped) || "nothing was lost"},
  {label: "Latency p99", text: (state) => state.bus.latency.samples ? format.duration(state.bus.latency.p99_ns) : "–",
    line: (state) => state.bus.latency.samples ? `median ${format.duration(state.bus.latency.p50_ns)}` : "nothing received yet"},
  {label: "Subscribers", unit: "", number: (state) => state.subscribers.length,
    tone: (state) => state.subscribers.some(isInTrouble) ? "warn" : "",
    line: (state) => {
      const troubled = state.subscribers.filter(isInTrouble).length;
      return `${format.plural(state.topics.length, "topic")}, ${troubled ? `${troubled} in trouble` : "none in trouble"}`;
    }},
  {label: "Account", text: (state) => state.bus.adds_up ? "adds up" : "does not add up",
    tone: (state) => state.bus.adds_up ? "good" : "bad",
    line: (state) => state.bus.discrepancies === 0 ? "no discrepancies"
      : `discrepancies: ${format.count(state.bus.discrepancies)}`},
];

export class Overview {
  constructor(history) {
    this.history = history;
    this.parts = tiles.map((tile) => this.makeTile(tile));
  }

  makeTile(tile) {
    const number = element("strong");
    const unit = element("span", {class: "unit"}, tile.unit ?? "");
    const line = element("p", {class: "line"});
    const spark = tile.number ? new Sparkline() : null;
    const root = element("div", {class: "tile"}, element("h2", {}, tile.label), element("p", {class: "number"}, number, unit),
      line);
    if (spark) root.append(spark.root);
    byId("overview").append(root);
    return {tile, number, line, spark, root};
  }

  // Called before the history forgets what was not pushed.
  record(state) {
    for (const {tile} of this.parts) {
      if (tile.number) this.history.push(tile.label, tile.number(state));
    }
  }

  update(state) {
    for (const {tile, number, line, spark, root} of this.parts) {
      setText(number, tile.number ? format.short(tile.number(state)) : tile.text(state));
      setText(line, tile.line(state));
      line.title = line.textContent;
      setData(root, "tone", tile.tone ? tile.tone(state) : "");
      if (spark) spark.draw(this.history.get(tile.label));
    }
  }
}
