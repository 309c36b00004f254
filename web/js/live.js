// The live connection: one WebSocket to the instrument. Views watch field
// paths; the connection subscribes while anyone watches and hands every
// pushed sample to the watchers. It reconnects by itself and subscribes
// again, and tells whether the values on screen are live.
//
// A field is subscribed in history mode while anyone wants its samples
// (a trend), else for its latest value. Stamps are BigInt nanoseconds; a
// field never assigned arrives as value null with stamp 0.
import { parseJson } from "./format.js";

export class LiveConnection {
  constructor() {
    this.watchers = new Map();   // path -> Set of callbacks (value, stamp)
    this.samplers = new Map();   // path -> Set of {samples([[v,s]...]), dropped(n)}
    this.modes = new Map();      // path -> mode sent with the subscription
    this.latest = new Map();     // path -> [value, stamp]
    this.statusListeners = new Set();
    this.status = "connecting";
    this.retryDelay = 500;
    this.connect();
  }

  // Calls `callback(value, stamp)` on every change of the field; returns a
  // function that ends the watch.
  watch(path, callback) {
    const set = this.listeners(this.watchers, path);
    set.add(callback);
    const last = this.latest.get(path);
    if (last) callback(last[0], last[1]);
    return () => this.forget(this.watchers, path, callback);
  }

  // Calls `onSamples([[value, stamp], ...])` with every change (history
  // mode) and `onDropped(count)` when the instrument dropped changes.
  watchSamples(path, onSamples, onDropped = () => {}) {
    const sampler = { samples: onSamples, dropped: onDropped };
    this.listeners(this.samplers, path).add(sampler);
    return () => this.forget(this.samplers, path, sampler);
  }

  listeners(map, path) {
    let set = map.get(path);
    if (!set) {
      set = new Set();
      map.set(path, set);
    }
    this.subscribeAsNeeded(path);
    return set;
  }

  forget(map, path, item) {
    const set = map.get(path);
    if (!set) return;
    set.delete(item);
    if (set.size === 0) map.delete(path);
    this.subscribeAsNeeded(path);
  }

  wantedMode(path) {
    if (this.samplers.has(path)) return "history";
    return this.watchers.has(path) ? 1 : undefined;
  }

  subscribeAsNeeded(path) {
    const wanted = this.wantedMode(path);
    const current = this.modes.get(path);
    if (wanted === current) return;
    if (current !== undefined) this.send("unsubscribe", { [path]: 1 });
    if (wanted === undefined) {
      this.modes.delete(path);
      this.latest.delete(path);
      return;
    }
    this.modes.set(path, wanted);
    this.send("subscribe", { [path]: wanted });
  }

  onStatus(listener) {
    this.statusListeners.add(listener);
    listener(this.status, this.retryDelay);
  }

  send(event, data) {
    if (this.socket?.readyState === WebSocket.OPEN) this.socket.send(JSON.stringify({ event, data }));
  }

  connect() {
    const scheme = location.protocol === "https:" ? "wss" : "ws";
    const socket = new WebSocket(`${scheme}://${location.host}/`);
    this.socket = socket;
    // A lost connection stays "offline" through its retries: nothing shown
    // is live again until a connection opens.
    if (this.status !== "offline") this.setStatus("connecting");
    socket.addEventListener("open", () => {
      this.retryDelay = 500;
      this.setStatus("live");
      if (this.modes.size) this.send("subscribe", Object.fromEntries(this.modes));
    });
    socket.addEventListener("message", (event) => this.receive(event.data));
    socket.addEventListener("close", () => {
      if (this.socket !== socket) return;
      this.setStatus("offline");
      setTimeout(() => this.connect(), this.retryDelay);
      this.retryDelay = Math.min(this.retryDelay * 2, 8000);
    });
  }

  receive(text) {
    let message;
    try {
      message = parseJson(text);
    } catch {
      return;
    }
    if (typeof message.data !== "object" || message.data === null) return;
    if (message.event === "history_dropped") {
      for (const [path, count] of Object.entries(message.data)) {
        for (const sampler of this.samplers.get(path) ?? []) sampler.dropped(Number(count));
      }
      return;
    }
    if (message.event !== "update") return;
    for (const [path, samples] of Object.entries(message.data)) {
      const sample = samples[samples.length - 1];
      if (!sample) continue;
      this.latest.set(path, sample);
      for (const sampler of this.samplers.get(path) ?? []) sampler.samples(samples);
      for (const callback of this.watchers.get(path) ?? []) callback(sample[0], sample[1]);
    }
  }

  setStatus(status) {
    this.status = status;
    for (const listener of this.statusListeners) listener(status, this.retryDelay);
  }
}
