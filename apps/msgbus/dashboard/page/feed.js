// Where the page gets its numbers: the state every 0.9 s while the page is seen, and events as they happen.

const interval = 900; // milliseconds from one poll to the next: a value is shown within a second of its push
const soonest = 150; // the least time between two polls, also when an event asks for one
const patience = 8000; // for one answer
const streamPause = 5000; // before a refused stream of events is asked for again

async function fetchState() {
  let response;
  try {
    response = await fetch("/v1/state", {cache: "no-store", signal: AbortSignal.timeout(patience)});
  } catch {
    throw new Error("The command 'msgbus dashboard' has ended or does not answer.");
  }
  if (response.status === 401) {
    throw new Error("Another dashboard is at this address now: open the address that it has printed.");
  }
  if (!response.ok) {
    const answer = await response.json().catch(() => ({}));
    throw new Error(`No server: ${answer.error || `it answers ${response.status}`}.`);
  }
  return response.json();
}

export class Feed {
  // onState(state), onEvents(events), onAway(sentence), onRestart()
  constructor(handlers) {
    this.handlers = handlers;
    this.isPaused = false;
    this.isPolling = false;
    this.lastPoll = -Infinity;
    this.server = null;
    this.lastEvent = 0;
    this.stream = null;
    this.streamAt = -Infinity;
    document.addEventListener("visibilitychange", () => this.resume());
  }

  start() {
    this.resume();
  }

  setPaused(isPaused) {
    this.isPaused = isPaused;
    this.resume();
  }

  get isOff() {
    return this.isPaused || document.hidden;
  }

  resume() {
    if (this.isOff) {
      this.closeStream();
      clearTimeout(this.timer);
    } else {
      this.pollSoon();
    }
  }

  pollSoon() {
    this.pollAt(this.lastPoll + soonest);
  }

  pollAt(time) {
    if (this.isPolling || this.isOff) return;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.poll(), Math.max(0, time - performance.now()));
  }

  async poll() {
    this.isPolling = true;
    this.lastPoll = performance.now();
    try {
      this.take(await fetchState());
    } catch (error) {
      this.closeStream();
      this.handlers.onAway(error.message);
    }
    this.isPolling = false;
    this.pollAt(this.lastPoll + (this.wantsPoll ? soonest : interval));
    this.wantsPoll = false;
  }

  take(state) {
    const server = `${state.server.pid} ${state.server.started_unix_ns}`;
    if (this.server !== server) { // events are counted from 1 again
      const isRestart = this.server !== null;
      this.server = server;
      this.lastEvent = 0;
      this.closeStream();
      if (isRestart) this.handlers.onRestart();
    }
    this.takeEvents(state.events);
    this.handlers.onState(state);
    this.openStream();
  }

  takeEvents(events) {
    const news = events.filter((event) => event.number > this.lastEvent);
    if (news.length === 0) return;
    this.lastEvent = news[news.length - 1].number;
    this.handlers.onEvents(news);
  }

  openStream() {
    if (this.isOff || (this.stream && this.stream.readyState !== EventSource.CLOSED)) return;
    if (performance.now() - this.streamAt < streamPause) return; // the state brings the events, too
    this.streamAt = performance.now();
    const stream = this.stream = new EventSource(`/v1/events?after=${this.lastEvent}`);
    for (const kind of eventKinds) {
      stream.addEventListener(kind, (message) => this.takeStreamed(stream, message));
    }
  }

  takeStreamed(stream, message) {
    if (stream !== this.stream) return;
    this.takeEvents([JSON.parse(message.data)]);
    if (this.isPolling) {
      this.wantsPoll = true;
    } else {
      this.pollSoon();
    }
  }

  closeStream() {
    if (this.stream) this.stream.close();
    this.stream = null;
    this.streamAt = -Infinity;
  }
}

export const eventKinds = ["publisher-registered", "subscriber-registered", "publisher-gone", "subscriber-gone",
  "publisher-died", "subscriber-died", "subscriber-cut", "refused", "serving", "draining", "stopping"];
