// The live connection: one WebSocket to the instrument. Views watch field
// paths; the connection subscribes while anyone watches and hands every
// pushed sample to the watchers. It reconnects by itself and subscribes
// again, and tells whether the values on screen are live.

export class LiveConnection {
  constructor() {
    this.watchers = new Map();   // path -> Set of callbacks (value, stamp)
    this.latest = new Map();     // path -> [value, stamp]
    this.statusListeners = new Set();
    this.status = "connecting";
    this.retryDelay = 500;
    this.connect();
  }

  // Calls `callback(value, stamp)` on every change of the field; returns a
  // function that ends the watch.
  watch(path, callback) {
    let set = this.watchers.get(path);
    if (!set) {
      set = new Set();
      this.watchers.set(path, set);
      this.send("subscribe", { [path]: 1 });
    }
    set.add(callback);
    const last = this.latest.get(path);
    if (last) callback(last[0], last[1]);
    return () => {
      set.delete(callback);
      if (set.size === 0 && this.watchers.get(path) === set) {
        this.watchers.delete(path);
        this.latest.delete(path);
        this.send("unsubscribe", { [path]: 1 });
      }
    };
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
    this.setStatus("connecting");
    socket.addEventListener("open", () => {
      this.retryDelay = 500;
      this.setStatus("live");
      if (this.watchers.size) {
        const all = {};
        for (const path of this.watchers.keys()) all[path] = 1;
        this.send("subscribe", all);
      }
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
      message = JSON.parse(text);
    } catch {
      return;
    }
    if (message.event !== "update" || typeof message.data !== "object") return;
    for (const [path, samples] of Object.entries(message.data)) {
      const sample = samples[samples.length - 1];
      if (!sample) continue;
      this.latest.set(path, sample);
      for (const callback of this.watchers.get(path) ?? []) callback(sample[0], sample[1]);
    }
  }

  setStatus(status) {
    this.status = status;
    for (const listener of this.statusListeners) listener(status, this.retryDelay);
  }
}
