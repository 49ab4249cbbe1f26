// Compares our recordings with what readers and writers of others make of them: every value, topic, time, sequence number, schema,
// the statistics, the metadata, all checksums; through the index, as a stream, of a file that was cut; and the other way round.
//
// usage: check.mjs PROGRAM_DIRECTORY

import { McapIndexedReader, McapStreamReader, McapWriter } from "@mcap/core";
import { parse } from "@foxglove/rosmsg";
import { MessageReader, MessageWriter } from "@foxglove/rosmsg2-serialization";
import { decompress } from "fzstd";
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtemp, open, readFile, rm, truncate, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";

const programs = process.argv[2];
const decompressHandlers = { zstd: (data) => decompress(data) };
const COUNT = 50_000;
const GOLDEN = 0x9e3779b97f4a7c15n;

const valueAt = (index) => BigInt.asIntN(64, BigInt(index) * GOLDEN);
const timeAt = (index) => 1790000000000000000n + BigInt(index) * 1000n;

function bitsOf(double) {
  const view = new DataView(new ArrayBuffer(8));
  view.setFloat64(0, double);
  return view.getBigInt64(0);
}

/** Checks the messages that a reader gives, in order. Returns how many there were. */
class Expected {
  next = 0;
  sequences = new Map();
  schemas = new Map();
  channels = new Map();

  addSchema(schema) {
    assert.equal(schema.encoding, "ros2msg");
    const definition = parse(new TextDecoder().decode(schema.data), { ros2: true });
    this.schemas.set(schema.id, { name: schema.name, reader: new MessageReader(definition) });
  }

  addChannel(channel) {
    assert.equal(channel.messageEncoding, "cdr");
    this.channels.set(channel.id, channel);
  }

  check(message) {
    const isSecond = this.next % 3 === 0;
    const channel = this.channels.get(message.channelId);
    const schema = this.schemas.get(channel.schemaId);
    assert.equal(channel.topic, isSecond ? "two" : "sensors/one");
    assert.equal(schema.name, isSecond ? "std_msgs/msg/Float64" : "std_msgs/msg/Int64");
    assert.equal(channel.metadata.get("msgbus.description"), isSecond ? undefined : "fixed;step=1/10;unit=V");
    const { data } = schema.reader.readMessage(message.data);
    const value = valueAt(this.next);
    if (!isSecond) {
      assert.equal(data, value);
    } else if (!Number.isNaN(data)) {
      assert.equal(bitsOf(data), value);
    }
    assert.equal(message.logTime, timeAt(this.next));
    assert.equal(message.publishTime, timeAt(this.next));
    const sequence = this.sequences.get(channel.id) ?? 0;
    assert.equal(message.sequence, sequence);
    this.sequences.set(channel.id, sequence + 1);
    ++this.next;
  }
}

async function readIndexed(file) {
  const handle = await open(file);
  const size = BigInt((await handle.stat()).size);
  const reader = await McapIndexedReader.Initialize({
    decompressHandlers,
    readable: {
      size: async () => size,
      read: async (offset, length) => {
        const buffer = new Uint8Array(Number(length));
        await handle.read(buffer, 0, Number(length), Number(offset));
        return buffer;
      },
    },
  });
  const expected = new Expected();
  reader.schemasById.forEach((schema) => expected.addSchema(schema));
  reader.channelsById.forEach((channel) => expected.addChannel(channel));
  for await (const message of reader.readMessages()) {
    expected.check(message);
  }
  assert.equal(expected.next, COUNT);
  const { statistics } = reader;
  assert.equal(statistics.messageCount, BigInt(COUNT));
  assert.equal(statistics.channelCount, 2);
  assert.equal(statistics.schemaCount, 2);
  assert.equal(statistics.metadataCount, 2);
  assert.equal(statistics.chunkCount, reader.chunkIndexes.length);
  assert.ok(statistics.chunkCount > 1);
  assert.equal(statistics.messageStartTime, timeAt(0));
  assert.equal(statistics.messageEndTime, timeAt(COUNT - 1));
  assert.equal([...statistics.channelMessageCounts.values()].reduce((sum, count) => sum + count), BigInt(COUNT));
  const metadata = [];
  for await (const each of reader.readMetadata()) {
    metadata.push(each);
  }
  assert.deepEqual(metadata.map((each) => each.name), ["msgbus.begin", "msgbus.end"]);
  assert.equal(metadata[0].metadata.get("text"), "é\n");
  assert.equal(reader.header.profile, "ros2");

  let first = 0; // one channel, part of the time, through the message indexes
  for await (const message of reader.readMessages({ topics: ["two"], startTime: timeAt(3000), endTime: timeAt(6000) })) {
    assert.equal(message.logTime, timeAt(3000 + 3 * first++));
  }
  assert.equal(first, 1001);
  await handle.close();
}

async function readStream(file) {
  const reader = new McapStreamReader({ validateCrcs: true, decompressHandlers });
  reader.append(await readFile(file));
  const expected = new Expected();
  const seen = new Map();
  for (let record; (record = reader.nextRecord()); ) {
    seen.set(record.type, (seen.get(record.type) ?? 0) + 1);
    if (record.type === "DataEnd") {
      assert.notEqual(record.dataSectionCrc, 0);
    } else if (record.type === "Footer") {
      assert.notEqual(record.summaryCrc, 0);
    } else if (record.type === "Schema" && !expected.schemas.has(record.id)) {
      expected.addSchema(record);
    } else if (record.type === "Channel" && !expected.channels.has(record.id)) {
      expected.addChannel(record);
    } else if (record.type === "Message") {
      expected.check(record);
    }
  }
  return { count: expected.next, done: reader.done(), seen };
}

async function writeOther(file, compression) {
  const chunks = [];
  const writer = new McapWriter({
    writable: {
      position: () => BigInt(chunks.reduce((sum, chunk) => sum + chunk.length, 0)),
      write: async (data) => { chunks.push(data.slice()); },
    },
    useChunks: compression !== undefined,
    chunkSize: 10_000,
  });
  await writer.start({ profile: "", library: "other" });
  const types = [["Int64", "int64 data"], ["Float64", "float64 data"], ["String", "string data"]];
  const channels = [];
  for (const [name, definition] of types) {
    const schemaId = await writer.registerSchema({
      name: `std_msgs/msg/${name}`, encoding: "ros2msg", data: new TextEncoder().encode(definition) });
    channels.push({
      id: await writer.registerChannel({ schemaId, topic: name, messageEncoding: "cdr", metadata: new Map() }),
      writer: new MessageWriter(parse(definition, { ros2: true })),
    });
  }
  const lines = [];
  for (let index = 0; index < 3000; ++index) {
    const kind = index % 3;
    const data = [valueAt(index), index / 7, "text"][kind];
    await writer.addMessage({
      channelId: channels[kind].id, sequence: index, logTime: timeAt(index), publishTime: timeAt(index) + 1n,
      data: channels[kind].writer.writeMessage({ data }) });
    if (kind < 2) {
      lines.push(`${types[kind][0]} ${kind ? "float" : "int"} ${index} ${timeAt(index)} ${kind ? bitsOf(data) : data}`);
    }
  }
  await writer.addMetadata({ name: "theirs", metadata: new Map([["a", "b"]]) });
  await writer.end();
  await writeFile(file, Buffer.concat(chunks));
  return lines;
}

const folder = await mkdtemp(join(tmpdir(), "borven-readers-"));
try {
  const file = join(folder, "ours.mcap");
  execFileSync(join(programs, "write_sample"), [file, String(COUNT)]);
  await readIndexed(file);
  const stream = await readStream(file);
  assert.equal(stream.count, COUNT);
  assert.ok(stream.done);
  assert.ok(stream.seen.get("SummaryOffset") >= 4);
  console.log(`${COUNT} values of a complete file, through its index and as a stream`);

  execFileSync(join(programs, "write_sample"), [file, String(COUNT), "open"]);
  assert.deepEqual((await readStream(file)).count, COUNT);
  const size = (await readFile(file)).length;
  let read = 0;
  for (const part of [0.95, 0.7, 0.4]) {
    await truncate(file, Math.floor(size * part));
    const cut = await readStream(file);
    assert.ok(cut.count > 0 && cut.count < COUNT);
    assert.ok(!cut.done);
    read += cut.count;
  }
  console.log(`${read} values of files that were not closed, and cut`);

  for (const compression of [undefined, "none"]) {
    const lines = await writeOther(join(folder, "theirs.mcap"), compression);
    const printed = execFileSync(join(programs, "print_recording"), [join(folder, "theirs.mcap")], { encoding: "utf8" });
    const found = printed.trimEnd().split("\n");
    assert.equal(found.indexOf("note theirs") >= 0, true); // its place depends on their chunks
    assert.deepEqual(found.filter((line) => line !== "note theirs"), [...lines, "others 1000", "complete"]);
  }
  console.log("files of another writer, with and without chunks");
} finally {
  await rm(folder, { recursive: true });
}
