// The operator page in Debian's Chromium against the real program: the first
// start's admin logs in, the page shows live values and their trends, sets
// values and says why a set is refused, presses buttons after asking, speaks
// of interlocks and permits in their states (a pending trip counting down, a
// revoked permit and why its command is refused), draws I2C chips, an admin
// issues and revokes a token, logs out, a page of another site changes
// nothing, an alarm is acknowledged and survives a restart, and while the
// program is stopped the page shows offline and afterwards goes on with the
// new program's log. Each main view is left as a screenshot in the artefacts
// folder.
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
  <chamber type="component" label="Chamber">
    <pressure type="analog_io" label="Pressure" units="mbar" value="1"/>
    <hv_enable type="digital_io" label="High voltage" value="false"/>
    <hv_permit type="permit_command_io" label="HV permit" output="chamber/hv_enable">
      <vacuum type="range_interlock_io" label="Vacuum" input="chamber/pressure" units="mbar"
              upper_warning="5" upper_limit="10" error_time_duration="2.5"/>
    </hv_permit>
  </chamber>
  <i2c type="i2c_bus" device="sim">
    <display type="us2066" address="60" lines="2" row_0="Hello" row_1="Rig"><poll rate="20"/></display>
    <port type="pcf8574" address="32" command="15"><poll rate="20"/></port>
  </i2c>
</root>`;

let dataRoot, profile, zel, base, browser, page, password, cookie;

function startZel(port = 0) {
  return new Promise((resolve, reject) => {
    const [program, ...prefix] = [...EMULATOR, BINARY];
    const child = spawn(program, [...prefix, "--config", join(dataRoot, "rig.xml"), "--data-root", dataRoot, "--pid-file",
      join(dataRoot, "zel.pid"), "--io-mount", "none", "--port", String(port)], { stdio: ["ignore", "pipe", "pipe"] });
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

// The login dialog, sent as the first start's admin with `secret`.
async function logInOnThePage(secret) {
  await page.locator("#login button").click();
  const dialog = page.locator("#login-dialog");
  await dialog.locator('input[name="user"]').fill("admin");
  await dialog.locator('input[name="password"]').fill(secret);
  await dialog.locator("#login-submit").click();
  return dialog;
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

// Leaves a picture of the page as it is in the run's artefacts.
async function screenshot(name) {
  if (!ARTIFACTS) return;
  mkdirSync(ARTIFACTS, { recursive: true });
  await page.screenshot({ path: join(ARTIFACTS, `${name}.png`) });
}

async function stopZel() {
  if (!zel || zel.exitCode !== null) return;
  const exited = new Promise((resolve) => zel.once("exit", resolve));
  zel.kill("SIGTERM");
  await exited;
}

after(async () => {
  await browser?.close();
  await stopZel();
  rmSync(dataRoot, { recursive: true, force: true });
  rmSync(profile, { recursive: true, force: true });
});

test("the first start's admin logs in on the page", async () => {
  await page.goto(`${base}/`);
  await page.locator("#connection.live").waitFor();
  // The name arrives with the tree, which may come after the socket is live.
  await shows(page.locator("#instrument"), "Browser Test Rig");
  await shows(page.locator("#login"), "read only");
  const dialog = await logInOnThePage("wrong");
  await shows(dialog.locator(".login-error"), "Wrong user name or password");
  await dialog.locator('input[name="password"]').fill(password);
  await dialog.locator("#login-submit").click();
  await shows(page.locator("#login"), "admin (admin)");
  await page.locator('.tree-link[href="#/channels"]').click();
  await shows(page.locator("h1"), "Channels");
  await shows(valueOf("channels/temperature/value"), "21.5");
  await screenshot("values");
});

test("values changed through the API show at once and draw in their trends", async () => {
  await page.goto(`${base}/#/channels`);
  await shows(valueOf("channels/temperature/value"), "21.5");
  const spark = page.locator('.trend.spark[data-path="channels/temperature/value"]');
  await spark.locator("canvas").waitFor();
  for (const value of ["30", "31.5", "29", "37.25"]) await put("channels/temperature", value);
  await shows(valueOf("channels/temperature/value"), "37.25");
  await page.waitForFunction(() => {
    const trend = document.querySelector('.trend.spark[data-path="channels/temperature/value"]');
    return Number(trend.dataset.samples) >= 5 && trend.dataset.last === "37.25";
  });
  // A failed reading breaks the line; it is not drawn as 0.
  await put("channels/temperature", "NaN");
  await page.waitForFunction(() =>
    document.querySelector('.trend.spark[data-path="channels/temperature/value"]').dataset.last === "");
  await put("channels/pump", "true");
  await shows(valueOf("channels/pump/value"), "true");
  assert.equal(await rowOf("channels/pump/value").locator("input[type=checkbox]").isChecked(), true);

  await spark.click();
  const chart = page.locator('.trend-dialog .trend.large[data-path="channels/temperature/value"]');
  await chart.locator("canvas").waitFor();
  await page.locator(".trend-windows button", { hasText: "10 min" }).click();
  assert.ok(Number(await chart.getAttribute("data-samples")) >= 5);
  await put("channels/temperature", "12");
  await page.waitForFunction(() => document.querySelector(".trend.large").dataset.last === "12");
  await screenshot("trend");
  await page.locator(".trend-dialog .close").click();
  await page.locator(".trend-dialog").waitFor({ state: "detached" });
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

test("interlocks show their state in words, a pending trip counts down, a revoked permit says why", async () => {
  await page.goto(`${base}/#/`);
  const door = page.locator('.tile[data-path="interlocks/door"]');
  await shows(door, "OK");
  await shows(page.locator("#interlock-summary"), "Interlocks: OK");
  await shows(page.locator(".interlock-message"), "All interlocks OK.");
  await page.locator("#interlock-manager .row", { hasText: "Enable All" }).waitFor();
  await put("sensors/door_open", "true");
  await shows(door, "TRIPPED");
  await shows(page.locator("#interlock-summary"), "Interlocks: TRIPPED");
  assert.equal(await door.getAttribute("data-color"), "red");
  await put("sensors/door_open", "false");

  // The report "Generate" writes can be downloaded.
  await page.locator('#interlock-manager button[data-path="interlocks/generate_report_csv"]').click();
  const link = page.locator("#interlock-manager .report-link");
  await link.waitFor();
  const report = await fetch(new URL(await link.getAttribute("href"), base));
  assert.equal(report.status, 200);
  const csv = await report.text();
  assert.ok(csv.startsWith("Path,Parent,Label,Detail\r\n"), csv);
  assert.match(csv, /^chamber\/hv_permit\/vacuum,chamber\/hv_permit,Vacuum,/m);

  await page.goto(`${base}/#/chamber/hv_permit/vacuum`);
  const state = page.locator(".interlock-view .state-box");
  await shows(state, "OK");
  await shows(page.locator(".interlock-view .condition"), "Trips above 10 mbar; warns above 5 mbar");
  await shows(rowOf("chamber/hv_permit/vacuum/lower_limit"), "not set");
  await put("chamber/pressure", "7");
  await shows(state, "WARNING");
  await put("chamber/pressure", "50");
  await shows(state, "TRIP PENDING");
  await shows(state.locator(".state-note"), "trips in");
  await shows(page.locator(".interlock-pending-note"), "Trip pending: Vacuum");
  await screenshot("interlock-pending");
  await shows(state, "TRIPPED");
  assert.match(await state.locator(".state-since").textContent(), /^since \d/);

  await page.goto(`${base}/#/chamber/hv_permit`);
  await shows(page.locator(".interlock-view .state-box"), "REVOKED");
  await shows(page.locator(".interlock-view .state-box"), "by Vacuum");
  await shows(page.locator('.tile[data-path="chamber/hv_permit"]'), "by Vacuum");
  await rowOf("chamber/hv_permit/user_command").locator(".slider").click();
  await shows(rowOf("chamber/hv_permit/user_command").locator(".row-error"), "Refused: the permit is revoked by Vacuum; the command was withdrawn.");
  await shows(page.locator(".permit-command.refused"), "revoked by Vacuum");
  await screenshot("permit-revoked");
  await treeHas("chamber/hv_enable/value", false);

  await put("chamber/pressure", "1");
  await shows(page.locator(".interlock-view .state-box"), "GRANTED");
  await rowOf("chamber/hv_permit/user_command").locator(".slider").click();
  await treeHas("chamber/hv_enable/value", true);
  await shows(page.locator(".permit-command"), "the output is on");
  // The output itself is the permit's: the page points there, and a set is refused with the reason.
  await page.goto(`${base}/#/chamber`);
  await shows(rowOf("chamber/hv_enable/value").locator(".readonly-note"), "switched by chamber/hv_permit");
  const refused = await fetch(`${base}/io/chamber/hv_enable`, { method: "PUT", body: "false", headers: { cookie } });
  assert.equal(refused.status, 403);
  assert.match(refused.headers.get("x-zel-error"), /is driven by 'chamber\/hv_permit'/);
  // The limits stand next to the value they guard, which is marked beyond them.
  const pressure = rowOf("chamber/pressure/value");
  await shows(pressure.locator(".guard"), "warns above 5 · trips above 10 mbar (Vacuum)");
  await put("chamber/pressure", "12");
  await pressure.locator(".value.beyond-limit").waitFor();
  await put("chamber/pressure", "1");
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
  await shows(page.locator(".panel.stale .stale-note"), "Stale: the source does not answer");
  await put("i2c/simulation/port/answering", "true");
  await shows(page.locator(".chip-fault:not(.raised)"), "Answering");
  assert.equal(await page.locator(".panel.stale").count(), 0, "fresh again once it answers");
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
  await logInOnThePage(password);
  await shows(page.locator("#login"), "admin (admin)");

  const { last } = await (await fetch(`${base}/api/alarms?limit=1`)).json();
  await put("sensors/door_open", "true");
  await shows(page.locator("#alarm-banner"), "unacknowledged alarm");
  await page.locator("#alarm-banner").click();
  // The trip's own row: newer than anything the journal held before it.
  await page.waitForFunction((before) => Number(document.querySelector(".alarm-row")?.dataset.id) > before, last);
  const newest = page.locator(".alarm-row").first();
  await shows(newest, "TRIPPED");
  assert.equal(await newest.getAttribute("data-path"), "interlocks/door");
  assert.equal(await newest.getAttribute("data-kind"), "trip");
  assert.match(await newest.locator(".alarm-text").textContent(), /'sensors\/door_open' is true/);
  const id = await newest.getAttribute("data-id");
  const row = page.locator(`.alarm-row[data-id="${id}"]`);
  await row.locator(".alarm-ack-button").click();
  await shows(row.locator(".alarm-ack"), "acknowledged by admin");

  await stopZel();
  const started = await startZel();
  zel = started.child;
  base = `http://127.0.0.1:${started.port}`;
  await page.goto(`${base}/#/channels`);
  await page.locator("#alarm-banner").click();
  await shows(row.locator(".alarm-ack"), "acknowledged by admin");
  const journal = await (await fetch(`${base}/api/alarms`)).json();
  assert.equal(journal.alarms.find((alarm) => String(alarm.id) === id)?.acknowledged_by, "admin");
  await screenshot("alarms");
});

test("while the program is stopped the page is offline, and its log goes on after the restart", async () => {
  await page.goto(`${base}/#/channels`);
  await page.locator("#connection.live").waitFor();
  await page.locator(".log-record").first().waitFor();
  await stopZel();
  await page.locator("body.offline").waitFor();
  // The page stays offline through its reconnection tries (at 0.5 and 1 s).
  await page.evaluate(() => {
    window.liveAgain = false;
    new MutationObserver(() => {
      if (!document.body.classList.contains("offline")) window.liveAgain = true;
    }).observe(document.body, { attributes: true, attributeFilter: ["class"] });
  });
  await page.waitForTimeout(2000);
  assert.equal(await page.evaluate(() => window.liveAgain), false, "the page looked live while the program was away");
  await page.locator(".offline-banner").waitFor({ state: "visible" });
  await shows(page.locator("#interlock-summary"), "not known (offline)");
  assert.equal(await page.locator("#interlock-summary").getAttribute("data-color"), "neutral");
  // Nothing on screen claims a state in green: the panels are drawn grey.
  const filters = await page.evaluate(() => [".interlocks", ".layout", "#interlock-summary"]
    .map((s) => getComputedStyle(document.querySelector(s)).filter));
  assert.deepEqual(filters, ["grayscale(1)", "grayscale(1)", "grayscale(1)"]);
  await screenshot("offline");

  const restarted = await startZel(new URL(base).port);
  zel = restarted.child;
  await page.locator("#connection.live").waitFor({ timeout: 15000 });
  await shows(page.locator(".log-record.restart"), "the program restarted");
  // The new run's first records arrive although their numbers start again.
  await page.waitForFunction(() => {
    const items = [...document.querySelectorAll(".log-record")];
    const marker = items.findIndex((i) => i.classList.contains("restart"));
    return items.slice(0, marker).some((i) => i.textContent.includes("Web server listening on port"));
  });
  await screenshot("after-restart");
});
