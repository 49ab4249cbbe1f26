// Receives what msgbus stream sends with a client that others wrote: every value, topic, schema and time, in both subprotocols, also
// of a topic that turns out to have doubles; and says how fast that goes.
//
// usage: live.mjs PROGRAM_DIRECTORY

import { parse } from "@foxglove/rosmsg";
import { MessageReader } from "@foxglove/rosmsg2-serialization";
import wsProtocol from "@foxglove/ws-protocol";
import WebSocket from "ws";
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtemp, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";

const { FoxgloveClient } = wsProtocol;
const programs = process.argv[2];
const EXACT = [0n, -1n, 2n ** 53n + 1n, -(2n ** 63n), 2n ** 63n - 1n];
const MANY = 200_000;
const PATIENCE_MS = 60_000;

const running = [];
const runtime = await mkdtemp(join(tmpdir(), "borven-live-"));
const environment = { ...process.env, BORVEN_RUNTIME_DIR: runtime, MSGBUSD_CONFIG: "/dev/null" };
delete environment.BORVEN_BUS;

function inTime(promise, what) {
  let timer;
  const late = new Promise((_, reject) => { timer = setTimeout(() => reject(new Error(`no ${what} in time`)), PATIENCE_MS); });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

/** Starts a program. `exit` is its exit status, `said(pattern)` waits for a match in what it prints. */
function start(name, ...words) {
  const child = spawn(join(programs, name), words, { env: environment, stdio: ["pipe", "pipe", "pipe"] });
  running.push(child);
  let text = "";
  const exit = new Promise((resolve) => child.on("exit", resolve));
  const said = (pattern) => inTime(new Promise((resolve, reject) => {
    const look = () => { const match = pattern.exec(text); if (match) resolve(match); };
    for (const stream of [child.stdout, child.stderr]) {
      stream.on("data", (data) => { text += data; look(); });
    }
    child.on("exit", () => reject(new Error(`${name} ${words.join(" ")} ended: ${text}`)));
    look();
  }), `${pattern} of ${name}`);
  return { child, exit, said };
}

async function publish(topic, values, ...options) {
  const publisher = start("msgbus", "pub", topic, "-", ...options);
  publisher.child.stdin.end(values.map((value) => `${value}\n`).join(""));
  assert.equal(await publisher.exit, 0);
}

/** A connected client: its channels by topic, and the next message of each kind that it waits for. */
class Live {
  channels = new Map();
  readers = new Map();
  messages = [];
  errors = [];
  changed = () => {};

  constructor(port, subprotocol) {
    this.socket = new WebSocket(`ws://127.0.0.1:${port}`, [subprotocol]);
    this.client = new FoxgloveClient({ ws: this.socket });
    this.client.on("serverInfo", (info) => { this.info = info; });
    this.client.on("error", (error) => this.errors.push(error));
    this.client.on("status", (status) => { this.status = status; this.changed(); });
    this.client.on("advertise", (channels) => {
      channels.forEach((channel) => this.channels.set(channel.topic, channel));
      this.changed();
    });
    this.client.on("unadvertise", (ids) => { this.withdrawn = ids; });
    this.client.on("message", (message) => {
      this.messages.push(message);
      if (this.messages.length === this.wanted) this.changed();
    });
    this.client.on("close", (event) => { this.closed = event; this.changed(); });
  }

  until(condition, what) {
    return inTime(new Promise((resolve) => {
      this.changed = () => { if (condition()) { this.changed = () => {}; resolve(); } };
      this.changed();
    }), what);
  }

  /** Subscribes, and waits until the server has read that: it answers another request in order. */
  async subscribe(topic) {
    const channel = this.channels.get(topic);
    assert.equal(channel.encoding, "cdr");
    assert.equal(channel.schemaEncoding, "ros2msg");
    const id = this.client.subscribe(channel.id);
    this.readers.set(id, new MessageReader(parse(channel.schema, { ros2: true })));
    this.status = undefined;
    this.client.unsubscribe(4_000_000_000);
    await this.until(() => this.status, "answer");
    return id;
  }

  async take(count) {
    this.wanted = count;
    await this.until(() => this.messages.length >= count, `${count} messages, but ${this.messages.length},`);
    assert.deepEqual(this.errors, []);
    return this.messages.splice(0, count);
  }

  valueOf(message) {
    return this.readers.get(message.subscriptionId).readMessage(message.data).data;
  }
}

try {
  const server = start("msgbusd", "--log-level", "info");
  await server.said(/Serving in/);
  const stream = start("msgbus", "stream", "number", "double", "late", "--port", "0");
  const [, port] = await stream.said(/ws:\/\/127\.0\.0\.1:(\d+)/);

  for (const subprotocol of ["foxglove.websocket.v1", "foxglove.sdk.v1"]) {
    const live = new Live(port, subprotocol);
    await live.until(() => live.channels.size === 3, "channels");
    assert.equal(live.socket.protocol, subprotocol);
    assert.match(live.info.name, /^msgbus \d/);
    assert.equal(live.channels.get("number").schemaName, "std_msgs/msg/Int64");
    const id = await live.subscribe("number");
    const before = BigInt(Date.now()) * 1_000_000n;
    await publish("number", EXACT);
    const messages = await live.take(EXACT.length);
    const after = BigInt(Date.now() + 1) * 1_000_000n;
    assert.deepEqual(messages.map((message) => live.valueOf(message)), EXACT);
    for (const { timestamp, subscriptionId } of messages) {
      assert.ok(before <= timestamp && timestamp <= after, `${timestamp}`);
      assert.equal(subscriptionId, id);
    }
    live.client.close();
    await live.until(() => live.closed, "close");
    console.log(`${EXACT.length} values in ${subprotocol}`);
  }

  const live = new Live(port, "foxglove.websocket.v1");
  await live.until(() => live.channels.size === 3, "channels");
  await live.subscribe("double");
  const integers = live.channels.get("double").id;
  const bits = new DataView(new ArrayBuffer(8));
  bits.setFloat64(0, 21.5);
  const publisher = start("msgbus", "pub", "double", "-l", "-v", "--description", "float64;unit=V");
  await publisher.said(/publishing to/);
  publisher.child.stdin.write(`${bits.getBigInt64(0)}\n`);
  await live.until(() => live.channels.get("double").schemaName === "std_msgs/msg/Float64", "channel of doubles");
  assert.deepEqual(live.withdrawn, [integers]);
  assert.deepEqual(live.messages, []);
  await live.subscribe("double");
  publisher.child.stdin.end(`${bits.getBigInt64(0)}\n`);
  const [message] = await live.take(1);
  assert.equal(live.valueOf(message), 21.5);
  console.log("doubles, in a channel of their own");

  await live.subscribe("number");
  const began = performance.now();
  await publish("number", Array.from({ length: MANY }, (_, index) => index), "-q");
  const published = performance.now() - began;
  const all = await live.take(MANY);
  const received = performance.now() - began;
  all.forEach((each, index) => assert.equal(Number(live.valueOf(each)), index));
  console.log(`${MANY} values: published in ${published.toFixed(0)} ms, received in ${received.toFixed(0)} ms`);

  stream.child.kill("SIGTERM");
  assert.equal(await stream.exit, 0);
  await live.until(() => live.closed, "close");
  assert.equal(live.closed.code, 1001);
} finally {
  for (const child of running) {
    child.kill("SIGKILL");
  }
  await rm(runtime, { recursive: true, force: true });
}
