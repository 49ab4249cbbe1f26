// Everything about one topic or one subscriber, kept up to date while it is open.

import {byId, element, setData, setFacts, setText} from "../dom.js";
import * as format from "../format.js";
import {Histogram} from "./latency.js";
import {conditionOf} from "./subscribers.js";

function rateText(rates) {
  return `${format.short(rates.last_1s)} /s; over 10 s ${format.short(rates.last_10s)}, over a minute ${format.short(rates.last_60s)}`;
}

function publisherFacts(publisher) {
  if (!publisher) return [["Publisher", "none"]];
  return [
    ["Publisher", publisher.registered ? format.process(publisher) : `none; ${format.process(publisher)} has left`],
    ["Since", format.moment(publisher.since_unix_ns)],
    ["Accepted", format.count(publisher.accepted) +
      (publisher.accepted_before ? `, and ${format.count(publisher.accepted_before)} of earlier publishers` : "")],
    ["Without subscriber", format.count(publisher.without_subscriber)],
    ["Refused, queue full", format.count(publisher.refused_full), publisher.refused_full ? "warn" : ""],
    ["Gaps", `${format.duration(publisher.smallest_gap_ns)} to ${format.duration(publisher.largest_gap_ns)}`],
  ];
}

function descriptionFacts(description) {
  if (!description) return [];
  const facts = [["Description", description.text]];
  if (description.remark) facts.push(["Remark", description.remark]);
  return facts;
}

function topicFacts(topic) {
  return [
    ["Last value", format.lastValue(topic) ?? "none"], ["As published", topic.last_value_text ?? "none"], ["Pushed", topic.last_unix_ns === null ? "never"
      : `${format.moment(topic.last_unix_ns)}, ${format.age(topic.last_age_ns)} ago`],
    ["Rate", rateText(topic.rates)], ...publisherFacts(topic.publisher),
    ["Unread", format.count(topic.queued)], ["Dropped", format.count(topic.dropped), topic.dropped ? "bad" : ""],
    ...descriptionFacts(topic.description),
  ];
}

function subscriberFacts(subscriber) {
  const {flows} = subscriber;
  const [word, tone] = conditionOf(subscriber);
  return [
    ["State", word, tone === "quiet" ? "" : tone], ["Id", String(subscriber.id)], ["Process", format.process(subscriber)],
    ["Since", format.moment(subscriber.since_unix_ns)], ["Rate", rateText(subscriber.rates)],
    ["Due", format.count(flows.due)], ["Taken", format.count(flows.taken)], ["Offered", format.count(flows.offered)],
    ["Queued", format.count(flows.queued)], ["Handed over", format.count(flows.handed_over)],
    ["Dropped", `${format.count(flows.dropped.total)}${flows.dropped.total ? `: ${format.drops(flows.dropped)}` : ""}`,
      flows.dropped.total ? "bad" : ""],
    ["Oldest unread", subscriber.oldest_age_ns === null ? "none" : `${format.duration(subscriber.oldest_age_ns)} old`],
  ];
}

export class Details {
  constructor() {
    this.dialog = byId("details");
    this.facts = element("dl", {class: "facts"});
    this.listTitle = element("h3");
    this.list = element("ul", {class: "names"});
    this.latencyPart = element("div", {class: "part"}, element("h3", {}, "Latency"));
    this.histogram = new Histogram(this.latencyPart);
    byId("details-body").append(this.facts, element("div", {class: "part"}, this.listTitle, this.list), this.latencyPart);
    byId("details-close").addEventListener("click", () => this.dialog.close());
    this.find = null;
  }

  openTopic(topic) {
    this.open((state) => state.topics.find((each) => each.topic === topic.topic), topic.topic);
  }

  openSubscriber(subscriber) {
    this.open((state) => state.subscribers.find((each) => each.id === subscriber.id), subscriber.name);
  }

  open(find, name) {
    this.find = find;
    setText(byId("details-title"), name);
    this.update(this.state);
    if (!this.dialog.open) this.dialog.showModal();
  }

  update(state) {
    this.state = state;
    if (!this.find || !state) return;
    const found = this.find(state);
    setData(this.dialog, "gone", String(!found));
    if (!found) {
      setFacts(this.facts, [["State", "gone", "bad"]]);
    } else if ("topic" in found) {
      this.showTopic(found, state);
    } else {
      this.showSubscriber(found);
    }
  }

  showTopic(topic, state) {
    setFacts(this.facts, topicFacts(topic));
    const names = new Map(state.subscribers.map((each) => [each.id, `${each.name}, ${format.process(each)}`]));
    this.showList(format.plural(topic.subscribers.length, "subscriber"), topic.subscribers.map((id) => names.get(id) ?? `id ${id}`));
    this.latencyPart.hidden = true;
  }

  showSubscriber(subscriber) {
    setFacts(this.facts, subscriberFacts(subscriber));
    this.showList(format.plural(subscriber.topics.length, "topic"), subscriber.topics);
    this.latencyPart.hidden = false;
    this.histogram.update(subscriber.latency);
  }

  showList(title, names) {
    setText(this.listTitle, title);
    const text = names.join("\n");
    if (this.listText === text) return;
    this.listText = text;
    this.list.replaceChildren(...names.slice(0, 200).map((name) => element("li", {}, name)));
    if (names.length > 200) this.list.append(element("li", {}, `and ${format.count(names.length - 200)} more`));
  }
}
