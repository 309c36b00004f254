// The larger trend of one value, in a dialog over the page, with the time
// window the operator picks (kept for every trend).
import { h } from "./dom.js";
import { TrendChart, WINDOWS, setTrendWindow, trendWindow } from "./trends.js";

let current = null;

export function openTrend(field, live, label, bands = []) {
  current?.close();
  const chart = new TrendChart(field.path, live, { large: true, units: field.units, bands });
  const picker = h("div", { class: "trend-windows", role: "radiogroup", "aria-label": "Time window" },
    WINDOWS.map((w) => {
      const button = h("button", { type: "button", class: "window", "aria-pressed": String(trendWindow() === w.seconds) }, w.label);
      button.addEventListener("click", () => {
        setTrendWindow(w.seconds);
        for (const b of picker.children) b.setAttribute("aria-pressed", String(b === button));
      });
      return button;
    }));
  const dialog = h("dialog", { class: "trend-dialog", dataset: { path: field.path } },
    h("div", { class: "trend-head" }, h("h2", {}, label), picker,
      h("button", { type: "button", class: "secondary close" }, "Close")),
    chart.element);
  const close = () => {
    chart.stop();
    dialog.remove();
    current = null;
  };
  dialog.querySelector(".close").addEventListener("click", () => dialog.close());
  dialog.addEventListener("close", close);
  document.body.append(dialog);
  dialog.showModal();
  current = { close: () => dialog.close() };
}
