// Live trends of numeric values: a sparkline in a value's row and a larger
// chart on click, fed by the history mode of the subscription (every change,
// not just the latest), over a time window the operator picks. Drawn with
// uPlot, which the instrument serves from lib/; at most once per frame.
import { h } from "./dom.js";
import { stampMs } from "./format.js";

export const WINDOWS = [
  { label: "1 min", seconds: 60 },
  { label: "10 min", seconds: 600 },
  { label: "1 h", seconds: 3600 },
];
const KEPT_SAMPLES = 20000;  // per value, whatever the window

let library = null;
// Loads the chart library once; resolves to the uPlot constructor.
export function chartLibrary() {
  if (!library) {
    library = new Promise((resolve, reject) => {
      document.head.append(h("link", { rel: "stylesheet", href: "lib/uPlot.min.css" }));
      const script = h("script", { src: "lib/uPlot.iife.min.js" });
      script.addEventListener("load", () => resolve(window.uPlot));
      script.addEventListener("error", () => reject(new Error("the chart library is not installed")));
      document.head.append(script);
    });
  }
  return library;
}

// The operator may hide the sparklines (a slow display); on by default.
export const trendsShown = () => localStorage.getItem("zel.trends") !== "off";

export function trendWindow() {
  const seconds = Number(localStorage.getItem("zel.trendWindow"));
  return WINDOWS.some((w) => w.seconds === seconds) ? seconds : WINDOWS[0].seconds;
}

export function setTrendWindow(seconds) {
  localStorage.setItem("zel.trendWindow", String(seconds));
  for (const chart of charts) chart.schedule();
}

// The samples of one value while anyone draws it: times in seconds (uPlot's
// x), values; a null value breaks the line where changes were dropped.
class Series {
  constructor(path, live) {
    this.times = [];
    this.values = [];
    this.dropped = 0;
    this.users = new Set();
    this.stop = live.watchSamples(path, (samples) => this.add(samples), (count) => this.gap(count));
  }

  add(samples) {
    for (const [value, stamp] of samples) {
      if (!stamp || stamp === 0n) continue;  // never assigned: nothing to draw
      this.times.push(stampMs(stamp) / 1000);
      // A value that is not a finite number (a failed reading comes as
      // null) breaks the line: it is never drawn as 0.
      const number = value === null || value === undefined ? NaN : Number(value);
      this.values.push(Number.isFinite(number) ? number : null);
    }
    this.trim();
    this.changed();
  }

  gap(count) {
    this.dropped += count;
    this.breakLine();
  }

  // Nothing is known from the last sample on (changes dropped, the
  // connection lost): the line stops there instead of holding the value.
  breakLine() {
    const last = this.times[this.times.length - 1];
    if (last !== undefined && this.values[this.values.length - 1] !== null) {
      this.times.push(last);
      this.values.push(null);
    }
    this.changed();
  }

  trim() {
    const extra = this.times.length - KEPT_SAMPLES;
    if (extra > 0) {
      this.times.splice(0, extra);
      this.values.splice(0, extra);
    }
  }

  changed() {
    for (const chart of this.users) chart.schedule();
  }
}

const series = new Map();  // path -> Series
const charts = new Set();

let followsConnection = false;

function seriesFor(path, live) {
  if (!followsConnection) {
    followsConnection = true;
    live.onStatus((status) => {
      if (status === "offline") for (const one of series.values()) one.breakLine();
    });
  }
  let found = series.get(path);
  if (!found) {
    found = new Series(path, live);
    series.set(path, found);
  }
  return found;
}

// One chart of one value. `large` adds axes and a legend.
export class TrendChart {
  constructor(path, live, { large = false, units = "", bands = [] } = {}) {
    this.path = path;
    this.large = large;
    this.units = units;
    this.bands = bands;  // [{value, kind: "limit" | "warning"}]
    this.element = h("div", { class: large ? "trend large" : "trend spark", dataset: { path, samples: "0" } });
    this.series = seriesFor(path, live);
    this.series.users.add(this);
    charts.add(this);
    this.frame = 0;
    chartLibrary().then((uPlot) => this.create(uPlot)).catch((error) => {
      this.element.textContent = large ? `No trend: ${error.message}` : "";
    });
  }

  create(uPlot) {
    if (this.stopped) return;
    const width = this.large ? Math.max(400, this.element.clientWidth || 800) : 120;
    const height = this.large ? 300 : 30;
    const bands = this.bands;
    const options = {
      width, height,
      pxAlign: 0,
      legend: { show: this.large },
      cursor: { show: this.large, drag: { x: false, y: false } },
      select: { show: false },
      scales: { x: { time: true }, y: { auto: true } },
      axes: this.large ? [{}, { label: this.units }] : [{ show: false }, { show: false }],
      // A value holds until its next change: steps, not slopes.
      series: [{}, { label: this.units || "value", stroke: "#1b6ec2", width: this.large ? 2 : 1.25, spanGaps: false,
        points: { show: false }, paths: uPlot.paths.stepped({ align: 1 }) }],
      hooks: {
        // Limits and warning bands across the chart, where they are in range.
        draw: [(u) => {
          const { ctx, bbox } = u;
          for (const band of bands) {
            const y = u.valToPos(band.value, "y", true);
            if (!(y >= bbox.top && y <= bbox.top + bbox.height)) continue;
            ctx.save();
            ctx.strokeStyle = band.kind === "limit" ? "#d0312d" : "#e37400";
            ctx.setLineDash([6, 4]);
            ctx.beginPath();
            ctx.moveTo(bbox.left, y);
            ctx.lineTo(bbox.left + bbox.width, y);
            ctx.stroke();
            ctx.restore();
          }
        }],
      },
    };
    this.plot = new uPlot(options, [[], []], this.element);
    this.schedule();
  }

  schedule() {
    if (this.frame || !this.plot) return;
    this.frame = requestAnimationFrame(() => {
      this.frame = 0;
      this.draw();
    });
  }

  draw() {
    if (!this.plot || this.stopped) return;
    const { times, values, dropped } = this.series;
    const end = Date.now() / 1000;
    const start = end - trendWindow();
    let first = times.findIndex((t) => t >= start);
    if (first < 0) first = times.length;
    // The value held at the window's start is drawn from its left edge.
    const xs = times.slice(first);
    const ys = values.slice(first);
    if (first > 0 && values[first - 1] !== null) {
      xs.unshift(start);
      ys.unshift(values[first - 1]);
    }
    xs.push(end);
    ys.push(ys.length ? ys[ys.length - 1] : null);
    const range = this.bandRange(ys);
    this.plot.batch(() => {
      if (range) this.plot.setScale("y", range);
      this.plot.setData([xs, ys], !range);
      this.plot.setScale("x", { min: start, max: end });
    });
    this.element.dataset.samples = String(times.length - first);
    this.element.dataset.last = String(values[values.length - 1] ?? "");
    this.element.dataset.dropped = String(dropped);
    this.element.title = dropped ? `${dropped} changes were not received: the line is broken there` : "";
  }

  // Large charts keep the limits in view.
  bandRange(ys) {
    if (!this.large || !this.bands.length) return null;
    const all = [...ys.filter((y) => y !== null), ...this.bands.map((b) => b.value)];
    let min = Math.min(...all), max = Math.max(...all);
    const pad = (max - min) * 0.08 || 1;
    return { min: min - pad, max: max + pad };
  }

  stop() {
    this.stopped = true;
    cancelAnimationFrame(this.frame);
    this.plot?.destroy();
    charts.delete(this);
    this.series.users.delete(this);
    if (this.series.users.size === 0) {
      this.series.stop();
      series.delete(this.path);
    }
  }
}
