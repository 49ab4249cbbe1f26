// The theme, the pause button and the keyboard.

import {byId, element, setText} from "./dom.js";

const themes = ["auto", "dark", "light"];
const themeKey = "msgbus-dashboard-theme";
const shortcutsKey = "msgbus-dashboard-shortcuts";

// A browser may refuse to keep anything.
function remembered(key) {
  try {
    return localStorage.getItem(key);
  } catch {
    return null;
  }
}

function remember(key, value) {
  try {
    localStorage.setItem(key, value);
  } catch {
    // The choice lasts as long as the page.
  }
}

let theme = "auto";

function setTheme(chosen) {
  theme = themes.includes(chosen) ? chosen : "auto";
  document.documentElement.dataset.theme = theme;
  setText(byId("theme"), `Theme: ${theme}`);
}

function nextTheme() {
  setTheme(themes[(themes.indexOf(theme) + 1) % themes.length]);
  remember(themeKey, theme);
}

function goTo(id) {
  const section = byId(id);
  section.scrollIntoView({block: "start"});
  (section.querySelector(".scroller") ?? section).focus({preventScroll: true});
}

const shortcuts = [
  ["/", "search topics", () => byId("topics-search").focus()],
  ["t", "topics", () => goTo("topics")],
  ["s", "subscribers", () => goTo("subscribers")],
  ["m", "map", () => goTo("map")],
  ["e", "events", () => goTo("events")],
  ["l", "latency", () => goTo("latency")],
  ["v", "server", () => goTo("server")],
  ["p", "pause or go on", () => byId("pause").click()],
  ["d", "next theme", nextTheme],
  ["?", "this list", () => byId("keys").showModal()],
];

function onKey(event) {
  if (event.ctrlKey || event.altKey || event.metaKey || !byId("keys-on").checked || document.querySelector("dialog[open]")) return;
  if (event.target.closest("input[type=search], select, textarea")) {
    if (event.key === "Escape") event.target.blur();
    return;
  }
  const shortcut = shortcuts.find(([key]) => key === event.key);
  if (!shortcut) return;
  event.preventDefault();
  shortcut[2]();
}

// onPause(isPaused) is called when the button is pressed.
export function setUpControls(onPause) {
  setTheme(remembered(themeKey));
  byId("theme").addEventListener("click", nextTheme);
  byId("pause").addEventListener("click", () => {
    const isPaused = byId("pause").getAttribute("aria-pressed") !== "true";
    byId("pause").setAttribute("aria-pressed", String(isPaused));
    onPause(isPaused);
  });
  byId("keys-list").append(...shortcuts.flatMap(([key, what]) =>
    [element("dt", {}, element("kbd", {}, key)), element("dd", {}, what)]));
  byId("keys-on").checked = remembered(shortcutsKey) !== "off";
  byId("keys-on").addEventListener("change", (event) => remember(shortcutsKey, event.target.checked ? "on" : "off"));
  byId("help").addEventListener("click", () => byId("keys").showModal());
  byId("keys-close").addEventListener("click", () => byId("keys").close());
  document.addEventListener("keydown", onKey);
}
