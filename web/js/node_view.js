// The main view: one node with its values, actions and parts.
import * as api from "./api.js";
import { h, title } from "./dom.js";
import { chipView } from "./chip_views.js";
import { actionButton, fieldRow, liveValue } from "./fields.js";
import { isInterlockType, isPermitType } from "./interlock_state.js";
import { interlockSection, permitSection, stateChip } from "./interlock_view.js";

function breadcrumb(path) {
  const parts = path ? path.split("/") : [];
  const items = [h("a", { href: "#/" }, "System")];
  parts.forEach((part, i) => {
    items.push(h("span", { class: "sep" }, "›"));
    const to = parts.slice(0, i + 1).join("/");
    items.push(i === parts.length - 1 ? h("span", {}, part) : h("a", { href: `#/${to}` }, part));
  });
  return h("div", { class: "breadcrumb" }, items);
}

function partCard(child, live, stops) {
  const card = h("a", { class: "card", href: `#/${child.path}` },
    h("span", { class: "card-title" }, title(child)),
    h("span", { class: "card-type" }, child.type),
    child.detail ? h("span", { class: "card-detail" }, child.detail) : null);
  if (child.value) {
    const shown = liveValue(child.value, live, "card-value");
    stops.push(shown.stop);
    card.append(h("span", { class: "card-reading" }, shown.text, child.units ? h("span", { class: "units" }, child.units) : null));
  }
  if (child.color) card.style.setProperty("--accent", child.color);
  return card;
}

// A driver whose hardware does not answer says so in its "fault" field: the
// values it read are stale until it answers again.
function markStale(node, panel, live, stops) {
  const fault = node.fields.find((f) => f.name === "fault" && f.type === "string");
  if (!fault) return;
  const note = h("p", { class: "stale-note", role: "status" });
  panel.insertBefore(note, panel.children[1]);
  const show = (text) => {
    panel.classList.toggle("stale", Boolean(text));
    note.textContent = text ? `Stale: the source does not answer (${text}); these are its last values.` : "";
  };
  show(fault.value);
  stops.push(live.watch(fault.path, show));
}

// Draws the node at `path` into `container`; resolves to a function that
// ends its live watches.
export async function showNode(container, path, live, { showHidden }) {
  const stops = [];
  let node;
  try {
    node = await api.describe(path, 1);
  } catch (error) {
    container.replaceChildren(breadcrumb(path), h("div", { class: "empty" }, `Nothing at “${path}”: ${error.message}`));
    return () => {};
  }
  const visible = (item) => showHidden || !item.hidden;
  const children = (node.children ?? []).filter(visible);
  const ios = children.filter((c) => c.kind === "io");
  const parts = children.filter((c) => c.kind !== "io");

  const values = h("div", { class: "rows" });
  const addRow = (field, options) => {
    const row = fieldRow(field, live, options);
    stops.push(row.stop);
    values.append(row.element);
  };
  const interlock = isInterlockType(node.type);
  const permit = isPermitType(node.type) ? permitSection(node, live, stops) : null;
  // An interlock's or permit's value is its state, shown above in words.
  if (node.value && !interlock && !permit) addRow({ ...node.value, detail: "" }, { label: "Value" });
  for (const field of node.fields) {
    if (field.name === "trip_time") continue;  // shown as the countdown
    addRow(field);
    if (permit && field.name === "user_command") {
      permit.explain(values.lastElementChild);
      values.append(h("div", { class: "row-note" }, permit.command));
    }
  }
  for (const io of ios) {
    if (isInterlockType(io.type)) {
      values.append(h("div", { class: "row", dataset: { path: io.value.path } },
        h("div", { class: "row-label" }, h("a", { href: `#/${io.path}`, class: "label" }, title(io)),
          io.detail ? h("span", { class: "detail" }, io.detail) : null),
        h("div", { class: "row-value" }, stateChip(io, live, stops)), h("div", {}), h("div", {})));
      continue;
    }
    addRow({ ...io.value, detail: io.detail, units: io.value.units || io.units, readonly: io.value.readonly || io.readonly },
      { label: title(io), link: io.path });
  }

  const sections = [
    breadcrumb(path),
    h("div", { class: "node-head" },
      h("h1", {}, path ? title(node) : title({ ...node, label: node.label || "System" })),
      h("span", { class: "type" }, node.type),
      node.readonly ? h("span", { class: "badge" }, "read-only") : null),
    node.detail ? h("p", { class: "node-detail" }, node.detail) : null,
  ];
  const chip = chipView(node, live, stops);
  if (chip) sections.push(chip);
  if (interlock) sections.push(interlockSection(node, live, stops));
  if (permit) sections.push(permit.section);
  if (values.children.length) {
    const panel = h("section", { class: "panel" }, h("h2", {}, "Values"), values);
    markStale(node, panel, live, stops);
    sections.push(panel);
  }
  if (node.buttons.length) {
    sections.push(h("section", { class: "panel" }, h("h2", {}, "Actions"),
      h("div", { class: "actions" }, node.buttons.map((b) => actionButton(b, node)))));
  }
  if (parts.length) {
    sections.push(h("section", { class: "panel" }, h("h2", {}, "Parts"),
      h("div", { class: "cards" }, parts.map((p) => partCard(p, live, stops)))));
  }
  if (sections.length === 3 && !node.detail && !chip) sections.push(h("div", { class: "empty" }, "This node has no values of its own."));
  container.replaceChildren(...sections.filter(Boolean));
  return () => stops.forEach((stop) => stop());
}
