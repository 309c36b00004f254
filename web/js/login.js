// Who is logged in, the login form and logout. The session is a cookie the
// page never sees (HttpOnly); the page only asks the instrument who it is.

async function post(url, body) {
  const response = await fetch(url, { method: "POST", body: body === undefined ? "" : JSON.stringify(body) });
  return { response, body: await response.json().catch(() => ({})) };
}

export class LoginBox {
  constructor(box, dialog) {
    this.box = box;
    this.dialog = dialog;
    this.form = dialog.querySelector("form");
    this.error = dialog.querySelector(".login-error");
    this.form.addEventListener("submit", (event) => this.submit(event));
    dialog.querySelector(".secondary").addEventListener("click", () => dialog.close());
  }

  async refresh() {
    const response = await fetch("/api/session", { cache: "no-store" });
    const session = await response.json();
    this.box.replaceChildren();
    const who = document.createElement("span");
    who.className = "who";
    const button = document.createElement("button");
    button.type = "button";
    button.className = "link";
    if (session.user) {
      who.textContent = `${session.user} (${session.role})`;
      button.textContent = "Log out";
      button.addEventListener("click", async () => {
        await post("/api/logout");
        this.refresh();
      });
    } else {
      who.textContent = session.anonymous_write ? "not logged in" : "read only";
      button.textContent = "Log in";
      button.addEventListener("click", () => this.open());
    }
    this.box.append(who, button);
    return session;
  }

  open() {
    this.error.textContent = "";
    this.form.reset();
    this.dialog.showModal();
  }

  async submit(event) {
    event.preventDefault();
    const data = new FormData(this.form);
    const { response } = await post("/api/login", { user: data.get("user"), password: data.get("password") });
    if (!response.ok) {
      this.error.textContent = response.headers.get("X-Zel-Error") || `Refused (${response.status}).`;
      return;
    }
    this.dialog.close();
    this.refresh();
  }
}
