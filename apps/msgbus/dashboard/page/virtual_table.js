// A table of any length: only the rows in view are elements.

import {element, setAttribute, setText} from "./dom.js";

const spareRows = 6; // above and below those in view

// A column: {id, label, title, compare(a, b), isDescendingFirst, make(cell) -> update(item)}. The first one heads its row.
export class VirtualTable {
  constructor(scroller, {caption, columns, keyOf, sortedBy}) {
    this.scroller = scroller;
    this.columns = columns;
    this.keyOf = keyOf;
    this.items = [];
    this.rows = new Map();
    this.sort = {column: columns.find((column) => column.id === sortedBy), isDescending: false};
    this.headers = columns.map((column) => this.makeHeader(column));
    this.body = element("tbody");
    this.above = element("tr", {"aria-hidden": "true", class: "gap"}, element("td"));
    this.below = element("tr", {"aria-hidden": "true", class: "gap"}, element("td"));
    this.body.append(this.above, this.below);
    this.table = element("table", {}, element("caption", {class: "unseen"}, caption),
      element("colgroup", {}, ...columns.map((column) => element("col", {class: `column-${column.id}`}))),
      element("thead", {}, element("tr", {"aria-rowindex": "1"}, ...this.headers)), this.body);
    scroller.append(this.table);
    scroller.addEventListener("scroll", () => this.requestRender(), {passive: true});
    new ResizeObserver(() => this.requestRender()).observe(scroller);
    this.showSort();
  }

  makeHeader(column) {
    const button = element("button", {type: "button", title: column.title}, column.label);
    button.addEventListener("click", () => this.sortBy(column));
    return element("th", {scope: "col", class: `column-${column.id}`}, column.compare ? button : column.label);
  }

  sortBy(column) {
    const isSame = this.sort.column === column;
    this.sort = {column, isDescending: isSame ? !this.sort.isDescending : Boolean(column.isDescendingFirst)};
    this.showSort();
    this.setItems(this.items);
  }

  showSort() {
    this.columns.forEach((column, index) => {
      if (!column.compare) return;
      const isSorted = column === this.sort.column;
      setAttribute(this.headers[index], "aria-sort", isSorted ? (this.sort.isDescending ? "descending" : "ascending") : "none");
    });
  }

  setItems(items) {
    const {column, isDescending} = this.sort;
    const sign = isDescending ? -1 : 1;
    const keyOf = this.keyOf;
    // Equal ones keep an order of their own, or they would change places every second.
    this.items = items.slice().sort((a, b) => sign * column.compare(a, b) || (keyOf(a) < keyOf(b) ? -1 : 1));
    setAttribute(this.table, "aria-rowcount", String(items.length + 1));
    this.render();
  }

  requestRender() {
    if (this.isRequested) return;
    this.isRequested = true;
    requestAnimationFrame(() => {
      this.isRequested = false;
      this.render();
    });
  }

  render() {
    const rowHeight = parseFloat(getComputedStyle(this.scroller).getPropertyValue("--row-height"));
    const first = Math.max(0, Math.floor(this.scroller.scrollTop / rowHeight) - spareRows);
    const inView = Math.ceil(this.scroller.clientHeight / rowHeight) + 2 * spareRows;
    const shown = this.items.slice(first, first + inView);
    this.above.firstChild.style.height = `${first * rowHeight}px`;
    this.below.firstChild.style.height = `${(this.items.length - first - shown.length) * rowHeight}px`;
    this.above.hidden = first === 0;
    this.below.hidden = first + shown.length === this.items.length;
    this.placeRows(shown, first);
  }

  // Keeps the row elements of items that stay, and so the focus that may be in one.
  placeRows(shown, first) {
    const wanted = new Set(shown.map(this.keyOf));
    const free = [];
    for (const [key, row] of this.rows) {
      if (!wanted.has(key)) {
        row.root.remove();
        this.rows.delete(key);
        free.push(row);
      }
    }
    let next = this.above.nextSibling;
    shown.forEach((item, index) => {
      const key = this.keyOf(item);
      let row = this.rows.get(key);
      if (!row) this.rows.set(key, row = free.pop() || this.makeRow());
      if (row.root === next) {
        next = next.nextSibling;
      } else {
        this.body.insertBefore(row.root, next);
      }
      setAttribute(row.root, "aria-rowindex", String(first + index + 2));
      for (const update of row.updates) update(item);
    });
  }

  makeRow() {
    const root = element("tr");
    const updates = this.columns.map((column, index) => {
      const cell = index === 0 ? element("th", {scope: "row"}) : element("td");
      cell.className = `column-${column.id}`;
      root.append(cell);
      return column.make(cell, root);
    });
    return {root, updates};
  }
}

// Parts of columns.

export function textCell(textOf) {
  return (cell) => (item) => setText(cell, textOf(item));
}

// A name that opens the details of its row.
export function nameCell(nameOf, open) {
  return (cell) => {
    let current = null;
    const button = element("button", {type: "button", class: "name"});
    button.addEventListener("click", () => open(current));
    cell.append(button);
    return (item) => {
      current = item;
      const name = nameOf(item);
      setText(button, name);
      setAttribute(button, "title", name);
    };
  };
}

export function byNumber(numberOf) {
  return (a, b) => (numberOf(a) ?? -1) - (numberOf(b) ?? -1);
}

const collator = new Intl.Collator("en", {numeric: true});

export function byText(textOf) {
  return (a, b) => collator.compare(textOf(a), textOf(b));
}
