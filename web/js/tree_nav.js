// The sidebar: the system tree, opened level by level as the operator goes.
import * as api from "./api.js";
import { h, title } from "./dom.js";

export class TreeNav {
  constructor(list, { showHidden }) {
    this.list = list;
    this.showHidden = showHidden;
    this.current = "";
  }

  async load() {
    const root = await api.describe("", 1);
    this.list.replaceChildren(...this.items(root.children ?? []));
    this.highlight(this.current);
    return root;
  }

  items(children) {
    return children.filter((c) => this.showHidden || !c.hidden).map((child) => this.item(child));
  }

  item(node) {
    const li = h("li", { dataset: { path: node.path } });
    const link = h("a", { href: `#/${node.path}`, class: "tree-link" }, title(node));
    if (node.nodes > 0) {
      const toggle = h("button", { type: "button", class: "twisty", "aria-expanded": "false", "aria-label": `Open ${title(node)}` }, "▸");
      toggle.addEventListener("click", () => this.toggle(li, toggle, node.path));
      li.append(toggle, link);
    } else {
      li.append(h("span", { class: "twisty-space" }), link);
    }
    return li;
  }

  async toggle(li, toggle, path) {
    const open = toggle.getAttribute("aria-expanded") === "true";
    li.querySelector(":scope > ul")?.remove();
    toggle.setAttribute("aria-expanded", String(!open));
    toggle.textContent = open ? "▸" : "▾";
    if (open) return;
    const node = await api.describe(path, 1);
    li.append(h("ul", {}, this.items(node.children ?? [])));
    this.highlight(this.current);
  }

  // Marks the node being shown and opens the way to it.
  async reveal(path) {
    this.current = path;
    const parts = path ? path.split("/") : [];
    for (let i = 1; i < parts.length; ++i) {
      const ancestor = parts.slice(0, i).join("/");
      const li = this.list.querySelector(`li[data-path="${CSS.escape(ancestor)}"]`);
      const toggle = li?.querySelector(":scope > .twisty");
      if (toggle && toggle.getAttribute("aria-expanded") !== "true") await this.toggle(li, toggle, ancestor);
    }
    this.highlight(path);
  }

  highlight(path) {
    for (const link of this.list.querySelectorAll(".tree-link.current")) link.classList.remove("current");
    this.list.querySelector(`li[data-path="${CSS.escape(path)}"] > .tree-link`)?.classList.add("current");
  }
}
