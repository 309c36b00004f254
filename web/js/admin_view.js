// Users and API tokens, for admins: a "Users" button next to the login box
// opens a dialog that lists, adds, changes and removes users and issues and
// revokes tokens, through /api/users and /api/tokens. The server checks and
// logs every change; the page only shows its answers. The button follows the
// login box: it shows whenever the one logged in is an admin.

const ROLES = ["viewer", "operator", "expert", "admin"];

function element(tag, properties = {}, children = []) {
  const node = Object.assign(document.createElement(tag), properties);
  node.append(...children);
  return node;
}

function roleSelect(name, selected) {
  const select = element("select", { name });
  for (const role of ROLES) select.append(element("option", { value: role, textContent: role, selected: role === selected }));
  return select;
}

// Resolves {ok, body, error}; error is the server's reason in words.
async function call(method, url, body) {
  const response = await fetch(url, { method, cache: "no-store", body: body === undefined ? undefined : JSON.stringify(body) });
  const parsed = await response.json().catch(() => ({}));
  const error = response.ok ? "" : response.headers.get("X-Zel-Error") || `Refused (${response.status}).`;
  return { ok: response.ok, body: parsed, error };
}

const STYLE = `
#admin-dialog { max-width: 560px; width: 90vw; }
#admin-dialog table { width: 100%; border-collapse: collapse; margin: 6px 0 10px; }
#admin-dialog td { padding: 3px 6px 3px 0; }
#admin-dialog form { display: flex; flex-wrap: wrap; gap: 6px; align-items: center; }
#admin-dialog .admin-token { font-family: monospace; word-break: break-all; background: #eef3f8; padding: 6px; }
#admin-dialog .admin-error { color: #b3261e; min-height: 1.2em; }
`;

export class AdminView {
  // `loginBox`: the login box, watched for logins and logouts.
  constructor(loginBox) {
    this.slot = element("span", { className: "admin-slot" });
    loginBox.after(this.slot);
    document.head.append(element("style", { textContent: STYLE }));
    this.dialog = this.buildDialog();
    document.body.append(this.dialog);
    new MutationObserver(() => this.refresh()).observe(loginBox, { childList: true });
    this.refresh();
  }

  async refresh() {
    const session = await fetch("/api/session", { cache: "no-store" }).then((r) => r.json()).catch(() => ({}));
    const admin = session.role === "admin";
    this.slot.replaceChildren();
    if (admin) {
      const open = element("button", { type: "button", className: "link", id: "admin-open", textContent: "Users" });
      open.addEventListener("click", () => this.open());
      this.slot.append(" ", open);
    } else if (this.dialog.open) {
      this.dialog.close();
    }
  }

  buildDialog() {
    this.users = element("tbody");
    this.tokens = element("tbody");
    this.error = element("p", { className: "admin-error", role: "alert" });
    this.issued = element("p", { className: "admin-token", hidden: true });

    const userForm = element("form", { id: "admin-user-form" }, [
      element("input", { name: "name", placeholder: "name", required: true, autocomplete: "off" }),
      element("input", { name: "password", type: "password", placeholder: "password", autocomplete: "new-password" }),
      roleSelect("role", "operator"),
      element("button", { type: "submit", className: "set", textContent: "Add or change" }),
    ]);
    userForm.addEventListener("submit", (event) => this.submit(event, "/api/users", userForm));

    const tokenForm = element("form", { id: "admin-token-form" }, [
      element("input", { name: "name", placeholder: "token name", required: true, autocomplete: "off" }),
      roleSelect("role", "operator"),
      element("button", { type: "submit", className: "set", textContent: "Issue token" }),
    ]);
    tokenForm.addEventListener("submit", (event) => this.submit(event, "/api/tokens", tokenForm));

    const close = element("button", { type: "button", className: "secondary", textContent: "Close" });
    close.addEventListener("click", () => this.dialog.close());
    return element("dialog", { id: "admin-dialog", className: "confirm" }, [
      element("h2", { textContent: "Users" }),
      element("table", {}, [this.users]),
      userForm,
      element("h2", { textContent: "API tokens" }),
      element("table", {}, [this.tokens]),
      tokenForm,
      this.issued,
      this.error,
      element("div", { className: "confirm-actions" }, [close]),
    ]);
  }

  async open() {
    this.error.textContent = "";
    this.issued.hidden = true;
    if (!this.dialog.open) this.dialog.showModal();
    await this.load();
  }

  async load() {
    const [users, tokens] = await Promise.all([call("GET", "/api/users"), call("GET", "/api/tokens")]);
    if (!users.ok || !tokens.ok) {
      this.error.textContent = users.error || tokens.error;
      return;
    }
    this.users.replaceChildren(...users.body.map((user) => this.userRow(user)));
    this.tokens.replaceChildren(...tokens.body.map((token) => this.tokenRow(token)));
  }

  userRow(user) {
    const role = roleSelect("role", user.role);
    // Without a password the user keeps its own; the change ends its sessions.
    role.addEventListener("change", () => this.change("POST", "/api/users", { name: user.name, role: role.value }));
    const remove = element("button", { type: "button", className: "link", textContent: "Remove" });
    remove.addEventListener("click", () => this.change("DELETE", `/api/users/${encodeURIComponent(user.name)}`));
    return element("tr", { className: "admin-user" }, [
      element("td", { textContent: user.name }), element("td", {}, [role]), element("td", {}, [remove])]);
  }

  tokenRow(token) {
    const revoke = element("button", { type: "button", className: "link", textContent: "Revoke" });
    revoke.addEventListener("click", () => this.change("DELETE", `/api/tokens/${encodeURIComponent(token.name)}`));
    return element("tr", { className: "admin-token-row" }, [
      element("td", { textContent: token.name }), element("td", { textContent: token.role }), element("td", {}, [revoke])]);
  }

  async submit(event, url, form) {
    event.preventDefault();
    const body = Object.fromEntries(new FormData(form));
    const answer = await this.change("POST", url, body);
    if (!answer.ok) return;
    form.reset();
    if (answer.body.token) {
      // Shown this once: the instrument keeps only a digest of it.
      this.issued.textContent = `Token '${answer.body.name}' (copy it now, it is not shown again): ${answer.body.token}`;
      this.issued.hidden = false;
    }
  }

  async change(method, url, body) {
    const answer = await call(method, url, body);
    this.error.textContent = answer.error;
    await this.load();
    return answer;
  }
}
