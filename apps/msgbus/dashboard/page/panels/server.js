// The server itself: what it is, its account, its threads and its complaints.

import {byId, element, setData, setFacts, setText} from "../dom.js";
import * as format from "../format.js";

function factsOf(server) {
  return [
    ["Version", `${server.version}, ${server.mode}`],
    ["Process", String(server.pid)],
    ["Started", format.moment(server.started_unix_ns)],
    ["Options", server.options || "none"],
    ["Memory", format.bytes(server.memory_bytes)],
    ["Threads", `${format.count(server.threads)}, ${format.plural(server.workers, "worker")}`],
    ["Descriptors", format.count(server.descriptors)],
  ];
}

// Where the accepted values and what was due to subscribers have gone: each sum is the line above its parts.
function ledgerOf(bus) {
  const {flows} = bus;
  return [
    ["accepted", bus.accepted, "sum"], ["fanned out", bus.fanned_out], ["inbound", bus.inbound],
    ["without subscriber", bus.without_subscriber],
    ["due to subscribers", flows.due, "sum"], ["taken", flows.taken], ["offered", flows.offered], ["queued", flows.queued],
    ["handed over", flows.handed_over], ["dropped", flows.dropped.total],
  ];
}

function refusalsOf(bus) {
  return [
    ["Pushes refused", bus.refused_full], ["Pushes with an unknown id", bus.unknown_pushes],
    ["Waits with an unknown id", bus.unknown_waits], ["Registrations refused", bus.refused_registrations],
    ["Connections refused", bus.refused_connections], ["Values rescued", bus.rescued], ["Discrepancies", bus.discrepancies],
    ["Registrations without an account", bus.unlisted ?? 0],
  ].filter(([, number]) => number > 0).map(([name, number]) => [name, format.count(number), "warn"]);
}

function threadFacts(threads) {
  return threads.slice().sort((a, b) => b.away_ns - a.away_ns || b.longest_away_ns - a.longest_away_ns).slice(0, 8)
    .map((thread) => [thread.name, (thread.away_ns ? `away for ${format.duration(thread.away_ns)}, ` : "") +
      `longest ${format.duration(thread.longest_away_ns)}`, thread.away_ns >= 1e9 ? "bad" : ""]);
}

function errorItem(error) {
  const mark = element("span", {class: "mark", "data-tone": error.level === "error" ? "bad" : "warn"}, error.level);
  return element("li", {}, mark, ` ${format.count(error.count)} × `, element("span", {class: "what"}, error.text),
    element("span", {class: "who"}, ` ${error.place}, last at ${format.clock(error.last_unix_ns)}`));
}

function section(title, ...content) {
  return element("div", {class: "part"}, element("h3", {}, title), ...content);
}

export class Server {
  constructor() {
    this.facts = element("dl", {class: "facts"});
    this.ledger = element("dl", {class: "ledger"});
    this.refusals = element("dl", {class: "facts"});
    this.threads = element("dl", {class: "facts"});
    this.errors = element("ul", {class: "errors"});
    this.refusalsPart = section("Refused and unusual", this.refusals);
    this.errorsPart = section("Logged", this.errors);
    byId("server-body").append(section("Facts", this.facts), section("Account", this.ledger), this.refusalsPart,
      section("Threads, and how long they were away from their loops", this.threads), this.errorsPart);
  }

  update(state) {
    const {server, bus} = state;
    setText(byId("server-count"), `up for ${format.duration(server.uptime_ns)}`);
    setFacts(this.facts, factsOf(server));
    setFacts(this.ledger, ledgerOf(bus).map(([name, number, tone]) => [name, format.count(number), tone]));
    const refusals = refusalsOf(bus);
    setFacts(this.refusals, refusals);
    this.refusalsPart.hidden = refusals.length === 0;
    setFacts(this.threads, threadFacts(state.threads));
    this.errorsPart.hidden = state.errors.length === 0;
    const text = JSON.stringify(state.errors);
    if (text !== this.errorsText) {
      this.errorsText = text;
      this.errors.replaceChildren(...state.errors.map(errorItem));
    }
  }

  // The line in the header.
  static showState(word, tone, line) {
    const chip = byId("server-state");
    setText(chip, word);
    setData(chip, "tone", tone);
    setText(byId("server-line"), line);
  }
}
