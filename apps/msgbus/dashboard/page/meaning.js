// What a value means, by the description that its topic may have.

import * as format from "./format.js";

function asFloat(bits, is64) {
  const view = new DataView(new ArrayBuffer(8));
  view.setBigInt64(0, bits);
  const number = is64 ? view.getFloat64(0) : view.getFloat32(4);
  return String(is64 ? number : Number(number.toPrecision(7)));
}

function asFixed(bits, {numerator, denominator}) {
  const number = Number(bits) * numerator / denominator;
  const decimals = Math.log10(denominator);
  return Number.isInteger(decimals) ? number.toFixed(decimals) : String(Number(number.toPrecision(9)));
}

function asNumber(bits, description) {
  switch (description.type) {
  case "bool": return bits ? "true" : "false";
  case "uint64": return String(BigInt.asUintN(64, bits));
  case "float32": return asFloat(bits, false);
  case "float64": return asFloat(bits, true);
  case "fixed": return asFixed(bits, description);
  case "time": return format.moment(Number(bits));
  case "enum": {
    const named = description.names.find((each) => each.value === Number(bits));
    return named ? named.name : String(bits);
  }
  default: return String(bits);
  }
}

// Returns: the last value of a topic, with its unit; null when there is none.
export function lastValueOf(topic) {
  const {last_value_text: text, description} = topic;
  if (text === null || !description || !description.type) return text;
  const number = asNumber(BigInt(text), description);
  return description.unit ? `${number} ${description.unit}` : number;
}

// Returns: rows for a list of facts.
export function descriptionFacts(description) {
  if (!description) return [];
  const facts = [["Description", description.text]];
  if (description.remark) facts.push(["Remark", description.remark]);
  return facts;
}
