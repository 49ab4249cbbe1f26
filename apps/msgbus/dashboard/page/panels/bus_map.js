// Who publishes to whom: processes, their topics, and the subscribers of these. Of a large bus, the busiest.

import {byId, element, setAttribute, setData, setText, svg} from "../dom.js";
import * as format from "../format.js";
import {conditionOf} from "./subscribers.js";

const mostTopics = 24;
const mostSubscribers = 24;
const pitch = 26; // pixels from one node to the next
const margin = 4;

function busiest(items, rateOf, most) {
  return items.slice().sort((a, b) => rateOf(b) - rateOf(a)).slice(0, most);
}

// Returns: nodes in three columns {key, name, remark, tone, target}, edges {from, to, rate, tone}, and how many there are.
function graphOf(state) {
  // The rate of a minute: that of a second would change the choice all the time.
  const topics = busiest(state.topics, (topic) => topic.rates.last_60s, mostTopics)
    .sort((a, b) => a.topic < b.topic ? -1 : 1);
  const chosen = new Set(topics.map((topic) => topic.topic));
  const related = state.subscribers.filter((each) => each.topics.some((topic) => chosen.has(topic)));
  const subscribers = busiest(related, (each) => each.rates.last_60s, mostSubscribers);
  const graph = {columns: [[], [], []], edges: [], topics: topics.length, subscribers: subscribers.length};
  const processes = new Map();
  topics.forEach((topic) => {
    graph.columns[1].push({key: `t ${topic.topic}`, name: topic.topic, remark: `${format.short(topic.rates.last_1s)}/s`,
      tone: "", target: topic});
    const publisher = topic.publisher;
    if (!publisher || !publisher.registered) return;
    const key = `p ${publisher.pid} ${publisher.program}`;
    if (!processes.has(key)) processes.set(key, {key, name: publisher.program || "unknown", remark: String(publisher.pid), tone: ""});
    graph.edges.push({from: key, to: `t ${topic.topic}`, rate: topic.rates.last_1s, tone: ""});
  });
  graph.columns[0].push(...processes.values());
  const rates = new Map(topics.map((topic) => [topic.topic, topic.rates.last_1s]));
  for (const subscriber of subscribers) {
    const key = `s ${subscriber.id}`;
    const tone = conditionOf(subscriber)[1];
    graph.columns[2].push({key, name: subscriber.name, remark: subscriber.program ?? "", tone, target: subscriber});
    for (const topic of subscriber.topics) {
      if (chosen.has(topic)) graph.edges.push({from: `t ${topic}`, to: key, rate: rates.get(topic), tone});
    }
  }
  order(graph);
  return graph;
}

// Puts processes and subscribers near their topics, so that few lines cross.
function order(graph) {
  const places = new Map(graph.columns[1].map((node, index) => [node.key, index]));
  const sums = new Map();
  for (const {from, to} of graph.edges) {
    const [node, topic] = places.has(to) ? [from, to] : [to, from];
    const sum = sums.get(node) ?? [0, 0];
    sums.set(node, [sum[0] + places.get(topic), sum[1] + 1]);
  }
  const place = (node) => {
    const [sum, count] = sums.get(node.key) ?? [0, 1];
    return sum / count;
  };
  for (const column of [graph.columns[0], graph.columns[2]]) {
    column.sort((a, b) => place(a) - place(b) || (a.key < b.key ? -1 : 1));
  }
}

function widthOf(rate) {
  return (1 + Math.min(4, Math.log10(1 + rate))).toFixed(1);
}

export class BusMap {
  constructor(open) {
    this.open = open;
    this.body = byId("map-body");
    this.lines = svg("svg", {"aria-hidden": "true"});
    this.lists = ["Processes that publish", "Topics", "Subscribers"].map((label) => element("ul", {"aria-label": label}));
    this.body.append(this.lines, ...this.lists);
    this.nodes = new Map();
    this.edges = [];
    new ResizeObserver(() => this.graph && this.place()).observe(this.body);
    this.body.addEventListener("pointerover", (event) => this.highlight(event.target.closest("li")));
    this.body.addEventListener("pointerleave", () => this.highlight(null));
  }

  update(state) {
    this.graph = graphOf(state);
    const shape = JSON.stringify([this.graph.columns.map((column) => column.map((node) => node.key)),
      this.graph.edges.map((edge) => [edge.from, edge.to])]);
    if (shape !== this.shape) {
      this.shape = shape;
      this.build();
      this.place();
    }
    this.refresh();
    this.showCount(state);
  }

  showCount(state) {
    const {topics, subscribers} = this.graph;
    const isWhole = topics === state.topics.length && subscribers === state.subscribers.length;
    setText(byId("map-count"), isWhole ? `${format.plural(topics, "topic")}, ${format.plural(subscribers, "subscriber")}`
      : `the busiest: ${topics} of ${format.plural(state.topics.length, "topic")}, ` +
        `${subscribers} of ${format.plural(state.subscribers.length, "subscriber")}`);
  }

  build() {
    this.nodes.clear();
    this.graph.columns.forEach((column, index) => {
      this.lists[index].replaceChildren(...column.map((node) => this.makeNode(node)));
    });
    this.edges = this.graph.edges.map(() => svg("path"));
    this.lines.replaceChildren(...this.edges);
  }

  makeNode(node) {
    const name = element("span", {class: "what", title: node.name}, node.name);
    const remark = element("span", {class: "who"});
    const root = element("li", {}, name, " ", remark);
    const made = {root, remark, target: node.target};
    if (node.target) root.addEventListener("click", () => this.open(made.target));
    root.dataset.key = node.key;
    root.classList.toggle("opens", Boolean(node.target));
    this.nodes.set(node.key, made);
    return root;
  }

  // The nodes of each column are spread over the height of the longest one.
  place() {
    const {columns, edges} = this.graph;
    const height = Math.max(...columns.map((column) => column.length), 1) * pitch + 2 * margin;
    this.body.style.height = `${height}px`;
    setAttribute(this.lines, "height", String(height));
    const middles = new Map();
    for (const column of columns) {
      column.forEach((node, index) => {
        const middle = margin + (index + 0.5) * (height - 2 * margin) / column.length;
        middles.set(node.key, middle);
        this.nodes.get(node.key).root.style.top = `${(middle - pitch / 2).toFixed(1)}px`;
      });
    }
    const left = this.body.getBoundingClientRect().left;
    const sides = this.lists.map((list) => {
      const box = list.getBoundingClientRect();
      return [box.left - left, box.right - left];
    });
    edges.forEach((edge, index) => {
      const gap = edge.to.startsWith("t ") ? [sides[0][1], sides[1][0]] : [sides[1][1], sides[2][0]];
      const [x1, x2] = gap.map((x) => x.toFixed(1));
      const half = ((gap[0] + gap[1]) / 2).toFixed(1);
      const [y1, y2] = [middles.get(edge.from).toFixed(1), middles.get(edge.to).toFixed(1)];
      setAttribute(this.edges[index], "d", `M${x1} ${y1}C${half} ${y1} ${half} ${y2} ${x2} ${y2}`);
    });
  }

  refresh() {
    for (const column of this.graph.columns) {
      for (const node of column) {
        const made = this.nodes.get(node.key);
        made.target = node.target;
        setText(made.remark, node.remark);
        setData(made.root, "tone", node.tone);
      }
    }
    this.graph.edges.forEach((edge, index) => {
      setAttribute(this.edges[index], "stroke-width", widthOf(edge.rate));
      setData(this.edges[index], "tone", edge.tone);
    });
  }

  // Marks what is connected with the node under the pointer: of a topic both sides, else its topics.
  highlight(item) {
    const key = item ? item.dataset.key : null;
    setData(this.body, "marked", String(key !== null));
    const marked = new Set([key]);
    (this.graph ? this.graph.edges : []).forEach((edge, index) => {
      const isMarked = edge.from === key || edge.to === key;
      this.edges[index].classList.toggle("marked", isMarked);
      if (isMarked) marked.add(edge.from).add(edge.to);
    });
    for (const [each, node] of this.nodes) node.root.classList.toggle("marked", marked.has(each));
  }
}
