// The operator page in Debian's Chromium against the real program: the first
// start's admin logs in, the page shows live values, sets values and says why
// a set is refused, presses buttons after asking, colours the interlock
// overview, draws I2C chips, logs out, a page of another site changes
// nothing, and an alarm is acknowledged and survives a restart.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { cpSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { chromium } from "playwright-core";

const BINARY = process.env.ZEL_BINARY;
// A cross-built program is started through its emulator ("qemu-arm -L ...").
const EMULATOR = (process.env.ZEL_EMULATOR || "").split(" ").filter(Boolean);
const WEB_DIR = process.env.ZEL_WEB_DIR;
const ARTIFACTS = process.env.ZEL_ARTIFACTS;

const CONFIG = `<root label="Browser Test Rig">
  <pulse rate="5"/>
  <web_server type="web_server"/>
  <channels type="component" label="Channels" detail="Channels of the test rig.">
    <temperature type="analog_io" label="Temperature" units="degC" value="21.5"/>
    <pump type="digital_io" label="Vacuum pump" value="false"/>
    <operator type="string_io" label="Operator" value="nobody"/>
    <gauge type="analog_io" label="Gauge" units="mbar" readonly="true" value="1"/>
  </channels>
  <gen type="signal_generator" label="Test signal" enabled="false"/>
  <sensors type="component"><door_open type="digital_io" value="false"/></sensors>
  <interlocks><door type="digital_interlock_io" label="Door closed" input="sensors/door_open"/></interlocks>
  <i2c type="i2c_bus" device="sim">
    <display type="us2066" address="60" lines="2" row_0="Hello" row_1="Rig"><poll rate="20"/></display>
    <port type="pcf8574" address="32" command="15"><poll rate="20"/></port>
  </i2c>
</root>`;

let dataRoot, profile, zel, base, browser, page, password, cookie;

function startZel() {
  return new Promise((resolve, reject) => {
    const [program, ...prefix] = [...EMULATOR, BINARY];
    const child = spawn(program, [...prefix, "--config", join(dataRoot, "rig.xml"), "--data-root", dataRoot, "--pid-file",
      join(dataRoot, "zel.pid"), "--io-mount", "none", "--port", "0"], { stdio: ["ignore", "pipe", "pipe"] });
    let seen = "";
    let shown = "";
    child.stdout.on("data", (chunk) => {
      shown += chunk;
      const found = /the user 'admin' was created with the password '([^']+)'/.exec(shown);
      if (found) password = found[1];
    });
    const timer = setTimeout(() => reject(new Error(`no port in the log:\n${seen}`)), 20000);
    child.stderr.on("data", (chunk) => {
      seen += chunk;
      const found = /Web server listening on port (\d+)/.exec(seen);
      if (found) {
        clearTimeout(timer);
        resolve({ child, port: Number(found[1]) });
      }
    });
    child.on("exit", (code) => reject(new Error(`zel exited with ${code}:\n${seen}`)));
  });
}

async function read(path) {
  const response = await fetch(`${base}/io/${path}.json`);
  return JSON.parse(await response.text());
}

// A script's own session, as the first start's admin.
async function logIn() {
  const response = await fetch(`${base}/api/login`, { method: "POST", body: JSON.stringify({ user: "admin", password }) });
  assert.equal(response.status, 200);
  cookie = response.headers.get("set-cookie").split(";")[0];
}

async function put(path, text) {
  const response = await fetch(`${base}/io/${path}`, { method: "PUT", body: text, headers: { cookie } });
  assert.equal(await response.text(), '{"status":"success"}');
}

// Waits until `read(path)` gives `expected`.
async function treeHas(path, expected, timeout = 5000) {
  const deadline = Date.now() + timeout;
  let value;
  while (Date.now() < deadline) {
    value = await read(path);
    if (JSON.stringify(value) === JSON.stringify(expected)) return;
    await new Promise((r) => setTimeout(r, 50));
  }
  assert.deepEqual(value, expected, `${path} in the tree`);
}

const valueOf = (path) => page.locator(`.value[data-path="${path}"]`).first();
const rowOf = (path) => page.locator(`.row[data-path="${path}"]`);

async function waitFor(condition, what, timeout = 5000) {
  const deadline = Date.now() + timeout;
  while (!condition()) {
    if (Date.now() > deadline) throw new Error(`no ${what}`);
    await new Promise((r) => setTimeout(r, 20));
  }
}

async function shows(locator, text) {
  await locator.filter({ hasText: text }).first().waitFor({ timeout: 5000 });
}

before(async () => {
  dataRoot = mkdtempSync(join(tmpdir(), "zel-page-"));
  profile = mkdtempSync(join(tmpdir(), "zel-chromium-"));
  cpSync(WEB_DIR, join(dataRoot, "web"), { recursive: true });
  writeFileSync(join(dataRoot, "rig.xml"), CONFIG);
  const started = await startZel();
  zel = started.child;
  base = `http://127.0.0.1:${started.port}`;
  await waitFor(() => password, "the first start's password on the console");
  await logIn();
  browser = await chromium.launchPersistentContext(profile, {
    executablePath: "/usr/bin/chromium",
    headless: true,
    viewport: { width: 1400, height: 900 },
    args: ["--no-sandbox", "--disable-gpu", "--disable-background-networking", "--disable-component-update",
      "--no-first-run", "--disable-sync"],
  });
  page = browser.pages()[0] ?? (await browser.newPage());
  page.setDefaultTimeout(10000);
  page.on("pageerror", (error) => console.error("page error:", error.message));
});

after(async () => {
  if (page && ARTIFACTS) {
    mkdirSync(ARTIFACTS, { recursive: true });
    await page.goto(`${base}/#/channels`);
    await valueOf("channels/temperature/value").waitFor();
    await page.screenshot({ path: join(ARTIFACTS, "page.png") });
  }
  await browser?.close();
  if (zel && zel.exitCode === null) {
    const exited = new Promise((resolve) => zel.once("exit", resolve));
    zel.kill("SIGTERM");
    await exited;
  }
  rmSync(dataRoot, { recursive: true, force: true });
  rmSync(profile, { recursive: true, force: true });
});

test("the first start's admin logs in on the page", async () => {
  await page.goto(`${base}/`);
  await page.locator("#connection.live").waitFor();
  // The name arrives with the tree, which may come after the socket is live.
  await shows(page.locator("#instrument"), "Browser Test Rig");
  await shows(page.locator("#login"), "read only");
  await page.locator("#login button").click();
  const dialog = page.locator("#login-dialog");
  await dialog.locator('input[name="user"]').fill("admin");
  await dialog.locator('input[name="password"]').fill("wrong");
  await dialog.locator("#login-submit").click();
  await shows(dialog.locator(".login-error"), "Wrong user name or password");
  await dialog.locator('input[name="password"]').fill(password);
  await dialog.locator("#login-submit").click();
  await shows(page.locator("#login"), "admin (admin)");
  await page.locator('.tree-link[href="#/channels"]').click();
  await shows(page.locator("h1"), "Channels");
  await shows(valueOf("channels/temperature/value"), "21.5");
});

test("a value changed through the API shows on the page at once", async () => {
  await page.goto(`${base}/#/channels`);
  await shows(valueOf("channels/temperature/value"), "21.5");
  await put("channels/temperature", "37.25");
  await shows(valueOf("channels/temperature/value"), "37.25");
  await put("channels/pump", "true");
  await shows(valueOf("channels/pump/value"), "true");
  assert.equal(await rowOf("channels/pump/value").locator("input[type=checkbox]").isChecked(), true);
});

test("values set on the page reach the tree", async () => {
  await page.goto(`${base}/#/channels`);
  const operator = rowOf("channels/operator/value").locator("input");
  await operator.fill("Alice Operator");
  await operator.press("Enter");
  await treeHas("channels/operator/value", "Alice Operator");
  await shows(valueOf("channels/operator/value"), "Alice Operator");

  const temperature = rowOf("channels/temperature/value");
  await temperature.locator("input").fill("-12.5");
  await temperature.locator("button.set").click();
  await treeHas("channels/temperature/value", -12.5);

  await rowOf("channels/pump/value").locator(".slider").click();
  await treeHas("channels/pump/value", false);
  assert.equal(await rowOf("channels/gauge/value").locator("input").count(), 0, "a read-only value has no editor");
});

test("a refused set tells the operator why and changes nothing", async () => {
  await page.goto(`${base}/#/channels`);
  const before = await read("channels/temperature/value");
  const row = rowOf("channels/temperature/value");
  await row.locator("input").fill("warm");
  await row.locator("button.set").click();
  await shows(row.locator(".row-error"), "'warm' is not a double");
  await shows(page.locator(".toast"), "Not set");
  assert.deepEqual(await read("channels/temperature/value"), before);
  await shows(page.locator(".log-record.error"), "User can't set Field http");
});

test("a button asks for confirmation and only then acts", async () => {
  await page.goto(`${base}/#/gen`);
  const restart = page.locator('button[data-path="gen/restart_button"]');
  await restart.click();
  const dialog = page.locator("#confirm-dialog");
  await shows(dialog, "Restart the test signal from zero?");
  await dialog.locator('button[value="cancel"]').click();
  await new Promise((r) => setTimeout(r, 300));
  assert.equal(await read("gen/restarts"), 0, "cancelled: nothing happened");

  await restart.click();
  await dialog.locator('button[value="ok"]').click();
  await treeHas("gen/restarts", 1);
  await shows(valueOf("gen/restarts"), "1");
});

test("the interlock overview follows each interlock's colour", async () => {
  await page.goto(`${base}/#/`);
  const tile = page.locator('.tile[data-path="interlocks/door"]');
  await shows(tile, "OK");
  await shows(page.locator("#interlock-summary"), "Interlocks: OK");
  await put("sensors/door_open", "true");
  await shows(tile, "TRIPPED");
  await shows(page.locator("#interlock-summary"), "Interlocks: TRIPPED");
  assert.equal(await tile.getAttribute("data-color"), "red");
});

test("a chip's panel draws its display and shows its fault while it does not answer", async () => {
  await page.goto(`${base}/#/i2c/display`);
  await shows(page.locator(".oled-row"), "Hello");
  await put("i2c/display/upsidedown", "true");
  await page.locator(".oled-glass.flipped").waitFor();
  await page.goto(`${base}/#/i2c/port`);
  await page.locator(".pin.high").first().waitFor();
  assert.equal(await page.locator(".pin.high").count(), 4);  // latch 0x0F: the four low pins high
  await shows(page.locator(".chip-fault"), "Answering");
  await put("i2c/simulation/port/answering", "false");
  await shows(page.locator(".chip-fault.raised"), "I2C read failure: readState()");
  await put("i2c/simulation/port/answering", "true");
  await shows(page.locator(".chip-fault:not(.raised)"), "Answering");
});

test("an admin issues an API token on the page, sees it listed and revokes it", async () => {
  await page.goto(`${base}/`);
  await page.locator("#admin-open").click();
  const dialog = page.locator("#admin-dialog");
  await shows(dialog.locator(".admin-user"), "admin");
  const form = dialog.locator("#admin-token-form");
  await form.locator('input[name="name"]').fill("nightly");
  await form.locator('select[name="role"]').selectOption("viewer");
  await form.locator('button[type="submit"]').click();
  await shows(dialog.locator(".admin-token-row"), "nightly");
  const shown = await dialog.locator(".admin-token").textContent();
  const token = /(zel_[0-9a-f]+)/.exec(shown)?.[1];
  assert.ok(token, `the token is shown once: ${shown}`);
  const asToken = () => fetch(`${base}/api/session`, { headers: { Authorization: `Bearer ${token}` } }).then((r) => r.json());
  assert.equal((await asToken()).role, "viewer");

  await dialog.locator(".admin-token-row", { hasText: "nightly" }).locator("button", { hasText: "Revoke" }).click();
  await dialog.locator(".admin-token-row", { hasText: "nightly" }).waitFor({ state: "detached" });
  assert.equal((await asToken()).role, "anonymous", "a revoked token names nobody");
  await dialog.locator("button", { hasText: "Close" }).click();
});

test("after logout the page only reads, and a page of another site changes nothing", async () => {
  await page.goto(`${base}/#/channels`);
  await page.locator("#login button", { hasText: "Log out" }).click();
  await shows(page.locator("#login"), "read only");
  const row = rowOf("channels/temperature/value");
  await row.locator("input").fill("55");
  await row.locator("button.set").click();
  await shows(row.locator(".row-error"), "Log in to change");

  const before = await read("channels/temperature/value");
  await page.route("http://foreign.test/**", (route) => route.fulfill({ contentType: "text/html", body: "<p>elsewhere</p>" }));
  await page.goto("http://foreign.test/");
  const socketOpened = await page.evaluate(async (target) => {
    await fetch(`${target}/io/channels/temperature`, { method: "POST", mode: "no-cors", body: "99" }).catch(() => {});
    return new Promise((resolve) => {
      const socket = new WebSocket(target.replace("http", "ws") + "/");
      socket.onopen = () => resolve(true);
      socket.onerror = () => resolve(false);
    });
  }, base);
  assert.equal(socketOpened, false, "no WebSocket for a foreign page");
  assert.deepEqual(await read("channels/temperature/value"), before);
});

test("an alarm appears on a trip, is acknowledged on the page and is still acknowledged after a restart", async () => {
  await put("sensors/door_open", "false");
  await page.goto(`${base}/#/channels`);
  await page.locator("#login button").click();
  const dialog = page.locator("#login-dialog");
  await dialog.locator('input[name="user"]').fill("admin");
  await dialog.locator('input[name="password"]').fill(password);
  await dialog.locator("#login-submit").click();
  await shows(page.locator("#login"), "admin (admin)");

  const newest = () => page.locator('.alarm-row[data-path="interlocks/door"]').first();
  await put("sensors/door_open", "true");
  await shows(page.locator("#alarm-banner"), "unacknowledged alarm");
  await page.locator("#alarm-banner").click();
  await shows(newest(), "TRIPPED");
  assert.equal(await newest().getAttribute("data-kind"), "trip");
  assert.match(await newest().locator(".alarm-text").textContent(), /'sensors\/door_open' is true/);
  const id = await newest().getAttribute("data-id");
  const row = page.locator(`.alarm-row[data-id="${id}"]`);
  await row.locator(".alarm-ack-button").click();
  await shows(row.locator(".alarm-ack"), "acknowledged by admin");

  const exited = new Promise((resolve) => zel.once("exit", resolve));
  zel.kill("SIGTERM");
  await exited;
  const started = await startZel();
  zel = started.child;
  base = `http://127.0.0.1:${started.port}`;
  await page.goto(`${base}/#/channels`);
  await page.locator("#alarm-banner").click();
  await shows(row.locator(".alarm-ack"), "acknowledged by admin");
  const journal = await (await fetch(`${base}/api/alarms`)).json();
  assert.equal(journal.alarms.find((alarm) => String(alarm.id) === id)?.acknowledged_by, "admin");
  if (ARTIFACTS) {
    mkdirSync(ARTIFACTS, { recursive: true });
    await page.screenshot({ path: join(ARTIFACTS, "alarms.png") });
  }
});
