// What happened, newest first.

import {byId, element, setText} from "../dom.js";
import * as format from "../format.js";

const mostShown = 300;
const announceAfter = 1500; // milliseconds: what happens within that time is said in one sentence

const tones = {
  "publisher-died": "bad", "subscriber-died": "bad", "subscriber-cut": "bad", "refused": "warn", "draining": "warn",
  "stopping": "warn", "serving": "good",
};

function wordsOf(kind) {
  return kind.replaceAll("-", " ");
}

function remarkOf(event) {
  const remarks = [];
  if (event.program || event.pid) remarks.push(format.process(event));
  if (event.code) remarks.push(`result ${event.code}`);
  if (event.lost) remarks.push(`${format.count(event.lost)} unread`);
  return remarks.join(", ");
}

function makeItem(event) {
  const time = element("time", {title: format.moment(event.unix_ns)}, format.clock(event.unix_ns));
  const kind = element("span", {class: "kind", "data-tone": tones[event.event] ?? "quiet"}, wordsOf(event.event));
  const what = element("div", {}, kind, " ");
  if (event.name) what.append(element("span", {class: "what", title: event.name}, event.name), " ");
  what.append(element("span", {class: "who"}, remarkOf(event)));
  return element("li", {}, time, what);
}

export class Events {
  constructor() {
    this.list = byId("events-list");
    this.shown = 0;
    this.unsaid = [];
  }

  add(events) {
    const items = events.slice(-mostShown).map(makeItem).reverse();
    this.list.prepend(...items);
    while (this.list.children.length > mostShown) this.list.lastElementChild.remove();
    this.shown = Math.min(mostShown, this.list.children.length);
    setText(byId("events-count"), `the last ${format.count(this.shown)}`);
    // The first ones happened before the page was opened.
    if (this.isBegun) this.say(events.map((event) => `${wordsOf(event.event)}: ${event.name || remarkOf(event) || "server"}`));
    this.isBegun = true;
  }

  // A line between the events of two servers.
  addBreak(sentence) {
    this.list.prepend(element("li", {class: "break"}, sentence));
    this.say([sentence]);
  }

  // For screen readers: one sentence at a time, however much happens.
  say(sentences) {
    this.unsaid.push(...sentences);
    if (this.timer) return;
    this.timer = setTimeout(() => {
      const last = this.unsaid[this.unsaid.length - 1];
      setText(byId("announcer"), this.unsaid.length > 1 ? `${this.unsaid.length} events, the last: ${last}` : last);
      this.unsaid = [];
      this.timer = null;
    }, announceAfter);
  }
}
