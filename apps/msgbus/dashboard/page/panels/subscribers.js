// The table of subscribers, with how far each one lags.

import {byId, element, setData, setText} from "../dom.js";
import * as format from "../format.js";
import {VirtualTable, byNumber, byText, nameCell, textCell} from "../virtual_table.js";

const slowAfter = 1e9; // nanoseconds that its oldest unread value is old
const longestBar = 6; // a bar is full at ten to this power of values

export function unreadOf(subscriber) {
  return subscriber.flows.queued + subscriber.flows.offered;
}

function ageOf(subscriber) {
  return unreadOf(subscriber) > 0 ? subscriber.oldest_age_ns ?? 0 : 0;
}

// Returns: the state of a subscriber as a word, and its tone.
export function conditionOf(subscriber) {
  if (subscriber.cut) return ["cut", "bad"];
  if (ageOf(subscriber) >= slowAfter) return ["slow", "warn"];
  return subscriber.waiting ? ["waiting", "quiet"] : ["busy", "quiet"];
}

export function isInTrouble(subscriber) {
  return conditionOf(subscriber)[1] !== "quiet";
}

function conditionCell(cell) {
  const mark = element("span", {class: "mark"});
  cell.append(mark);
  return (subscriber) => {
    const [word, tone] = conditionOf(subscriber);
    setText(mark, word);
    setData(mark, "tone", tone);
  };
}

function lagCell(cell) {
  const bar = element("span", {class: "fill"});
  const number = element("span", {class: "value"});
  const age = element("span", {class: "age"});
  cell.append(element("span", {class: "lag", "aria-hidden": "true"}, bar), number, age);
  return (subscriber) => {
    const unread = unreadOf(subscriber);
    bar.style.width = `${Math.min(100, Math.log10(1 + unread) / longestBar * 100).toFixed(1)}%`;
    setData(bar, "tone", conditionOf(subscriber)[1]);
    setText(number, format.short(unread));
    setText(age, unread > 0 && ageOf(subscriber) > 0 ? format.duration(ageOf(subscriber)) : "");
  };
}

function dropsCell(cell) {
  return (subscriber) => {
    const text = format.drops(subscriber.flows.dropped);
    setText(cell, text || "0");
    setData(cell, "tone", text ? "bad" : "faint");
    cell.title = text;
  };
}

function topicsText(subscriber) {
  const [first, ...others] = subscriber.topics;
  if (first === undefined) return "none";
  return others.length ? `${others.length + 1}: ${first}, …` : first;
}

export class Subscribers {
  constructor(open) {
    this.subscribers = [];
    this.search = byId("subscribers-search");
    this.trouble = byId("subscribers-trouble");
    this.search.addEventListener("input", () => this.show());
    this.trouble.addEventListener("change", () => this.show());
    this.table = new VirtualTable(byId("subscribers-table"), {
      caption: "Subscribers with what they have yet to read and what they have lost",
      keyOf: (subscriber) => subscriber.id, sortedBy: "name",
      columns: [
        {id: "name", label: "Subscriber", compare: byText((each) => each.name), make: nameCell((each) => each.name, open)},
        {id: "program", label: "Program", compare: byText(format.process), make: textCell(format.process)},
        {id: "topics", label: "Topics", isDescendingFirst: true, compare: byNumber((each) => each.topics.length),
          make: textCell(topicsText)},
        {id: "condition", label: "State", compare: byText((each) => conditionOf(each)[0]), make: conditionCell},
        {id: "rate", label: "Rate /s", title: "values per second that it reads", isDescendingFirst: true,
          compare: byNumber((each) => each.rates.last_1s), make: textCell((each) => format.short(each.rates.last_1s))},
        {id: "lag", label: "Lag", title: "unread values (the bar is logarithmic) and the age of the oldest",
          isDescendingFirst: true, compare: byNumber(unreadOf), make: lagCell},
        {id: "drops", label: "Drops", title: "values that it has lost, by reason", isDescendingFirst: true,
          compare: byNumber((each) => each.flows.dropped.total), make: dropsCell},
        {id: "p99", label: "p99", title: "latency that 99 of 100 values do not exceed", isDescendingFirst: true,
          compare: byNumber((each) => each.latency.p99_ns),
          make: textCell((each) => each.latency.samples ? format.duration(each.latency.p99_ns) : "–")},
      ],
    });
  }

  update(state) {
    this.subscribers = state.subscribers;
    this.show();
  }

  show() {
    const wanted = this.search.value.trim().toLowerCase();
    const has = (text) => text.toLowerCase().includes(wanted);
    const found = this.subscribers.filter((each) => (!this.trouble.checked || isInTrouble(each)) &&
      (wanted === "" || has(each.name) || has(each.program ?? "") || each.topics.some(has)));
    this.table.setItems(found);
    const troubled = this.subscribers.filter(isInTrouble).length;
    const shown = found.length === this.subscribers.length ? format.count(found.length)
      : `${format.count(found.length)} of ${format.count(this.subscribers.length)}`;
    setText(byId("subscribers-count"), troubled ? `${shown}, ${format.count(troubled)} in trouble` : shown);
  }
}
