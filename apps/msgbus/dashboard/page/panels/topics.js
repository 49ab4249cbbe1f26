// The table of topics.

import {byId, element, setData, setText} from "../dom.js";
import * as format from "../format.js";
import {Sparkline} from "../history.js";
import {VirtualTable, byNumber, byText, nameCell, textCell} from "../virtual_table.js";

const staleAfter = 10e9; // nanoseconds

function programOf(topic) {
  return topic.publisher && topic.publisher.registered ? topic.publisher.program : "";
}

function lastCell(cell) {
  const value = element("span", {class: "value"});
  const age = element("span", {class: "age"});
  cell.append(value, " ", age);
  return (topic) => {
    setText(value, format.lastValue(topic) ?? "–");
    setData(cell, "long", String(value.textContent.length > 14));
    setText(age, topic.last_unix_ns === null ? "" : format.age(topic.last_age_ns));
    setData(cell, "stale", String(topic.last_age_ns > staleAfter));
  };
}

function toned(textOf, toneOf) {
  return (cell) => (topic) => {
    setText(cell, textOf(topic));
    setData(cell, "tone", toneOf(topic));
  };
}

export class Topics {
  constructor(history, open) {
    this.search = byId("topics-search");
    this.search.addEventListener("input", () => this.show());
    this.topics = [];
    const spark = (cell) => {
      const sparkline = new Sparkline();
      cell.append(sparkline.root);
      return (topic) => sparkline.draw(history.get(topic.topic));
    };
    const rateOf = (topic) => topic.rates.last_1s;
    this.table = new VirtualTable(byId("topics-table"), {
      caption: "Topics with their last value, rate and subscribers", keyOf: (topic) => topic.topic, sortedBy: "topic",
      columns: [
        {id: "topic", label: "Topic", compare: byText((topic) => topic.topic), make: nameCell((topic) => topic.topic, open)},
        {id: "program", label: "Publisher", compare: byText(programOf), make: textCell((topic) => programOf(topic) || "none")},
        {id: "spark", label: "Last minute", make: spark},
        {id: "rate", label: "Rate /s", title: "values per second, over the last second", isDescendingFirst: true,
          compare: byNumber(rateOf), make: textCell((topic) => format.short(rateOf(topic)))},
        {id: "last", label: "Last value", title: "and its age, which it is sorted by", compare: byNumber((topic) => topic.last_age_ns ?? Infinity), make: lastCell},
        {id: "subs", label: "Subs", title: "subscribers", isDescendingFirst: true,
          compare: byNumber((topic) => topic.subscribers.length),
          make: toned((topic) => format.count(topic.subscribers.length), (topic) => topic.subscribers.length ? "" : "faint")},
        {id: "queued", label: "Queue", title: "unread values of its subscribers", isDescendingFirst: true,
          compare: byNumber((topic) => topic.queued),
          make: toned((topic) => format.short(topic.queued), (topic) => topic.queued ? "" : "faint")},
        {id: "dropped", label: "Drops", title: "values that its subscribers have lost", isDescendingFirst: true,
          compare: byNumber((topic) => topic.dropped),
          make: toned((topic) => format.short(topic.dropped), (topic) => topic.dropped ? "bad" : "faint")},
      ],
    });
  }

  update(state) {
    this.topics = state.topics;
    this.show();
  }

  show() {
    const wanted = this.search.value.trim().toLowerCase();
    const found = wanted === "" ? this.topics : this.topics.filter((topic) =>
      topic.topic.toLowerCase().includes(wanted) || programOf(topic).toLowerCase().includes(wanted));
    this.table.setItems(found);
    setText(byId("topics-count"), found.length === this.topics.length ? format.count(found.length)
      : `${format.count(found.length)} of ${format.count(this.topics.length)}`);
  }
}
