// Elements of the page. Whatever comes from the bus is set as text, never as markup.

const svgSpace = "http://www.w3.org/2000/svg";

export function byId(id) {
  return document.getElementById(id);
}

function fill(made, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== null && value !== undefined && value !== false) made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

// Children are elements or texts.
export function element(name, attributes = {}, ...children) {
  return fill(document.createElement(name), attributes, children);
}

export function svg(name, attributes = {}, ...children) {
  return fill(document.createElementNS(svgSpace, name), attributes, children);
}

// Writes only what has changed: the browser then lays out only that.
export function setText(target, text) {
  if (target.textContent !== text) target.textContent = text;
}

export function setAttribute(target, name, value) {
  if (target.getAttribute(name) !== value) target.setAttribute(name, value);
}

export function setData(target, name, value) {
  if (target.dataset[name] !== value) target.dataset[name] = value;
}

// Fills a <dl> with [name, value, tone] rows, where value is a text.
export function setFacts(list, facts) {
  while (list.children.length > facts.length * 2) list.lastElementChild.remove();
  facts.forEach(([name, value, tone], index) => {
    if (list.children.length <= index * 2) list.append(element("dt"), element("dd"));
    setText(list.children[index * 2], name);
    setText(list.children[index * 2 + 1], value);
    setData(list.children[index * 2 + 1], "tone", tone || "");
  });
}
