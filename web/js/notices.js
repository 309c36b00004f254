// Messages for the operator: passing toasts and the confirmation dialog.
import { h } from "./dom.js";

export function toast(text, kind = "error") {
  const item = h("div", { class: `toast ${kind}`, role: kind === "error" ? "alert" : "status" }, text);
  document.getElementById("toasts").append(item);
  setTimeout(() => item.classList.add("leaving"), kind === "error" ? 6000 : 2500);
  setTimeout(() => item.remove(), kind === "error" ? 6600 : 3100);
}

// Resolves true when the operator confirms.
export function confirmAction(heading, text, action = "Confirm") {
  const dialog = document.getElementById("confirm-dialog");
  document.getElementById("confirm-title").textContent = heading;
  document.getElementById("confirm-text").textContent = text;
  document.getElementById("confirm-ok").textContent = action;
  dialog.returnValue = "";
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "ok"), { once: true });
  });
}
