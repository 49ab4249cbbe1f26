// The live page of the bus: takes the state from the feed, and shows it in each panel.

import {setUpControls} from "./controls.js";
import {byId, setText} from "./dom.js";
import {Feed} from "./feed.js";
import * as format from "./format.js";
import {History} from "./history.js";
import {BusMap} from "./panels/bus_map.js";
import {Details} from "./panels/details.js";
import {Events} from "./panels/events.js";
import {Histogram} from "./panels/latency.js";
import {Overview} from "./panels/overview.js";
import {Server} from "./panels/server.js";
import {Subscribers} from "./panels/subscribers.js";
import {Topics} from "./panels/topics.js";

const topicRates = new History();
const busNumbers = new History();
const details = new Details();
const events = new Events();
const overview = new Overview(busNumbers);
const histogram = new Histogram(byId("latency-body"));
const panels = [
  overview, new Topics(topicRates, (topic) => details.openTopic(topic)),
  new Subscribers((subscriber) => details.openSubscriber(subscriber)),
  new BusMap((target) => "topic" in target ? details.openTopic(target) : details.openSubscriber(target)),
  new Server(), details, {update: (state) => histogram.update(state.bus.latency)},
];
const stateTones = {serving: "good", starting: "quiet", draining: "warn", stopping: "warn", stopped: "bad"};
const nextSample = 800; // milliseconds: a poll that an event has asked for is no sample of its own
let lastSample = -Infinity;
let isAway = false;
let isPaused = false;

function record(state) {
  if (performance.now() - lastSample < nextSample) return;
  lastSample = performance.now();
  for (const topic of state.topics) topicRates.push(topic.topic, topic.rates.last_1s);
  topicRates.forget();
  overview.record(state);
}

function showServer(state) {
  const {server} = state;
  const word = !server.alive ? "gone" : server.paused ? "suspended" : server.state;
  Server.showState(isPaused ? "paused" : word, isPaused ? "quiet" : stateTones[word] ?? "bad",
    `version ${server.version}, ${server.mode}, process ${server.pid}, up for ${format.duration(server.uptime_ns)}`);
  document.title = `msgbus: ${word}`;
}

function showNotice(sentence) {
  const notice = byId("notice");
  notice.hidden = sentence === "";
  setText(notice, sentence);
}

function onState(state) {
  const began = performance.now();
  if (isAway) {
    isAway = false;
    showNotice("");
    document.body.classList.remove("away");
    events.addBreak("the server answers again");
  }
  record(state);
  showServer(state);
  for (const panel of panels) panel.update(state);
  performance.clearMeasures("update");
  performance.measure("update", {start: began, end: performance.now()});
}

function onAway(sentence) {
  showNotice(`${sentence} Below is what was read last; the page goes on when the server is back.`);
  Server.showState("away", "bad", "");
  document.title = "msgbus: away";
  if (!isAway) events.addBreak("the server is away");
  isAway = true;
  document.body.classList.add("away");
}

function onRestart() {
  topicRates.clear();
  busNumbers.clear();
  events.addBreak("another server has taken over");
}

const feed = new Feed({onState, onAway, onRestart, onEvents: (news) => events.add(news)});
setUpControls((pause) => {
  isPaused = pause;
  if (pause) Server.showState("paused", "quiet", "");
  feed.setPaused(pause);
});
feed.start();
