// Numbers as text: at most four digits and a unit, so that columns keep their width.

const whole = new Intl.NumberFormat("en-US", {maximumFractionDigits: 0});

export function count(number) {
  return whole.format(number);
}

// Three digits: 0.42, 9.61, 96.1, 961.
function digits(number) {
  const size = Math.abs(number);
  if (size === 0) return "0";
  if (size >= 99.95) return whole.format(number);
  return number.toFixed(size >= 9.995 ? 1 : 2);
}

export function short(number) {
  const size = Math.abs(number);
  if (size >= 999.5e6) return digits(number / 1e9) + "G";
  if (size >= 999.5e3) return digits(number / 1e6) + "M";
  if (size >= 9999.5) return digits(number / 1e3) + "k";
  if (Number.isInteger(number)) return whole.format(number);
  return size !== 0 && size < 0.005 ? "<0.01" : digits(number);
}

const small = [["s", 1e9], ["ms", 1e6], ["µs", 1e3], ["ns", 1]];

export function duration(ns) {
  if (ns === null || ns === undefined) return "–";
  const seconds = ns / 1e9;
  if (seconds >= 86400) return `${Math.floor(seconds / 86400)} d ${Math.floor(seconds % 86400 / 3600)} h`;
  if (seconds >= 3600) return `${Math.floor(seconds / 3600)} h ${Math.floor(seconds % 3600 / 60)} m`;
  if (seconds >= 99.5) return `${Math.floor(seconds / 60)} m ${Math.floor(seconds % 60)} s`;
  for (const [unit, size] of small) {
    if (ns >= size) return `${digits(ns / size)} ${unit}`;
  }
  return "0 ns";
}

// Of a value: tenths of a second are enough, and the column stays calm.
export function age(ns) {
  if (ns === null || ns === undefined) return "never";
  return ns < 60e9 ? `${(Math.max(ns, 0) / 1e9).toFixed(1)} s` : duration(ns);
}

export function bytes(number) {
  return number >= 2 ** 30 ? `${digits(number / 2 ** 30)} GiB` : `${digits(number / 2 ** 20)} MiB`;
}

export function clock(unixNs) {
  const date = new Date(unixNs / 1e6);
  const two = (number) => String(number).padStart(2, "0");
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

export function moment(unixNs) {
  if (unixNs === null || unixNs === undefined) return "never";
  const date = new Date(unixNs / 1e6);
  const day = `${date.getFullYear()}-${String(date.getMonth() + 1).padStart(2, "0")}-${String(date.getDate()).padStart(2, "0")}`;
  return `${day} ${clock(unixNs)}`;
}

export function process(owner) {
  if (!owner || !owner.pid) return owner && owner.program ? owner.program : "unknown";
  return owner.program ? `${owner.program} (${owner.pid})` : `process ${owner.pid}`;
}

export function plural(number, noun) {
  return `${count(number)} ${noun}${number === 1 ? "" : "s"}`;
}

const reasons = ["oldest", "newest", "cut", "unregistered", "undelivered"];

// Why values were dropped: "18.2k oldest, 12 cut".
export function drops(dropped) {
  return reasons.filter((reason) => dropped[reason] > 0)
    .map((reason) => `${short(dropped[reason])} ${reason}`).join(", ");
}

// Returns: the last value of a topic, as its description says where there is one; null when there is none.
export function lastValue(topic) {
  return topic.last_value_described ?? topic.last_value_text;
}
