// Figures of the operator page in Debian's Chromium (docs/BENCHMARKS.md):
//   node bench/page_trends.mjs build/zel
// 1. page load to the first live value on the demo instrument (median of 10);
// 2. 20 live trends of values changing at 10 Hz on the real page: frame
//    interval and script time per second in the browser, and the program's
//    CPU time with and without that page open;
// 3. the same 20 trends drawn by uPlot and by dygraphs (Debian's
//    libjs-dygraphs, when installed) with synthetic data, without the page;
// 4. the page's own script size and the chart library's.
// Uses the browser tests' playwright-core (tests/browser, npm ci).
import { spawn } from "node:child_process";
import { cpSync, existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";

const top = join(dirname(fileURLToPath(import.meta.url)), "..");
const { chromium } = await import(join(top, "tests/browser/node_modules/playwright-core/index.mjs"));
const BINARY = process.argv[2] ?? join(top, "build/zel");
const DYGRAPHS = "/usr/share/javascript/dygraphs/dygraph.min.js";
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

function start(config, web) {
  const root = mkdtempSync(join(tmpdir(), "zel-bench-page-"));
  cpSync(join(top, "web"), join(root, "web"), { recursive: true });
  for (const [name, text] of Object.entries(web)) writeFileSync(join(root, "web", name), text);
  writeFileSync(join(root, "system.xml"), config);
  const child = spawn(BINARY, ["--config", join(root, "system.xml"), "--data-root", root, "--pid-file", join(root, "zel.pid"),
    "--io-mount", "none", "--port", "0"], { stdio: ["ignore", "ignore", "pipe"] });
  return new Promise((resolve, reject) => {
    let seen = "";
    child.stderr.on("data", (chunk) => {
      seen += chunk;
      const found = /Web server listening on port (\d+)/.exec(seen);
      if (found) resolve({ child, root, base: `http://127.0.0.1:${found[1]}` });
    });
    child.on("exit", (code) => reject(new Error(`zel exited with ${code}: ${seen}`)));
  });
}

async function stop({ child, root }) {
  const exited = new Promise((r) => child.once("exit", r));
  child.kill("SIGTERM");
  await exited;
  rmSync(root, { recursive: true, force: true });
}

// CPU seconds (user + system) the process used so far.
function cpuSeconds(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, "utf8").split(") ")[1].split(" ");
  return (Number(fields[11]) + Number(fields[12])) / 100;
}

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
const percentile = (xs, p) => [...xs].sort((a, b) => a - b)[Math.min(xs.length - 1, Math.floor(xs.length * p))];

// Frame intervals and script time per frame, measured in the page for `ms`.
const FRAME_PROBE = (ms) => new Promise((resolve) => {
  const intervals = [];
  let last = performance.now();
  const end = last + ms;
  let busy = 0;
  const observer = new PerformanceObserver((list) => { for (const e of list.getEntries()) busy += e.duration; });
  try { observer.observe({ type: "longtask", buffered: false }); } catch {}
  const step = (now) => {
    intervals.push(now - last);
    last = now;
    if (now < end) requestAnimationFrame(step);
    else { observer.disconnect(); resolve({ intervals, longTasks: busy }); }
  };
  requestAnimationFrame(step);
});

async function scriptSeconds(session) {
  const { metrics } = await session.send("Performance.getMetrics");
  const get = (name) => metrics.find((m) => m.name === name)?.value ?? 0;
  return get("ScriptDuration") + get("LayoutDuration") + get("RecalcStyleDuration");
}

async function measureFrames(page, session, seconds) {
  await session.send("Performance.enable");
  const before = await scriptSeconds(session);
  const frames = await page.evaluate(FRAME_PROBE, seconds * 1000);
  const after = await scriptSeconds(session);
  return {
    meanFrameMs: frames.intervals.reduce((a, b) => a + b, 0) / frames.intervals.length,
    p99FrameMs: percentile(frames.intervals, 0.99),
    mainThreadMsPerSecond: ((after - before) * 1000) / seconds,
  };
}

const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", headless: true,
  args: ["--no-sandbox", "--disable-gpu", "--disable-background-networking", "--no-first-run"] });
const results = {};

// 1. Page load to the first live value.
{
  const demo = readFileSync(join(top, "examples/demo.xml"), "utf8");
  const zel = await start(demo, {});
  const times = [];
  for (let i = 0; i < 11; ++i) {
    const context = await browser.newContext();
    const page = await context.newPage();
    await page.addInitScript(() => {
      const Original = window.WebSocket;
      window.WebSocket = class extends Original {
        constructor(...args) {
          super(...args);
          this.addEventListener("message", (e) => {
            if (window.firstLive === undefined && e.data.includes('"test_signal/value"')) {
              // Shown: the push is handled in this same task, before the next frame.
              requestAnimationFrame(() => { window.firstLive ??= performance.now(); });
            }
          });
        }
      };
    });
    await page.goto(`${zel.base}/#/test_signal`);
    await page.waitForFunction(() => window.firstLive !== undefined, null, { timeout: 10000 });
    if (i > 0) times.push(await page.evaluate(() => window.firstLive));  // the first warms the program's caches
    await context.close();
  }
  results.firstLiveValueMs = { median: median(times), max: Math.max(...times) };
  await stop(zel);
}

// 2. 20 trends at 10 Hz on the real page, and what they cost the program.
// A driver page sets 20 values every 100 ms over its own WebSocket.
const DRIVER = () => new Promise((resolve) => {
  const socket = new WebSocket(`ws://${location.host}/`);
  socket.onopen = () => {
    let n = 0;
    setInterval(() => {
      const data = {};
      for (let i = 0; i < 20; ++i) data[`gens/v${i}`] = Math.sin(n / 20 + i) * (i + 1);
      socket.send(JSON.stringify({ event: "set", data }));
      ++n;
    }, 100);
    resolve();
  };
});
{
  const values = Array.from({ length: 20 }, (_, i) => `<v${i} type="analog_io" label="Value ${i}" units="V" value="0"/>`).join("");
  const zel = await start(`<root><web_server type="web_server" anonymous_write="true"/><gens type="component">${values}</gens></root>`, {});
  const driver = await browser.newPage();
  await driver.goto(`${zel.base}/favicon.svg`);
  await driver.evaluate(DRIVER);
  await sleep(2000);
  let cpu = cpuSeconds(zel.child.pid);
  await sleep(10000);
  const driverCpu = cpuSeconds(zel.child.pid) - cpu;
  for (const trends of ["off", "on"]) {
    const page = await browser.newPage({ viewport: { width: 1400, height: 1400 } });
    await page.addInitScript((shown) => localStorage.setItem("zel.trends", shown), trends);
    const session = await page.context().newCDPSession(page);
    await page.goto(`${zel.base}/#/gens`);
    await page.locator('.value[data-path="gens/v19/value"]').waitFor();
    if (trends === "on") await page.waitForFunction(() => document.querySelectorAll(".trend.spark canvas").length === 20);
    await sleep(3000);
    cpu = cpuSeconds(zel.child.pid);
    const frames = await measureFrames(page, session, 10);
    frames.serverCpuPercent = (cpuSeconds(zel.child.pid) - cpu) * 10;
    if (trends === "on") frames.samplesPerTrend = Number(await page.evaluate(() => document.querySelector(".trend.spark").dataset.samples));
    results[`page20Values_trends_${trends}`] = frames;
    await page.close();
  }
  results.serverCpuPercentSettingOnly = driverCpu * 10;
  await driver.close();
  await stop(zel);
}

// 3. The libraries alone: 20 charts, a sample each every 100 ms, 10 min window.
const LIBRARY_PAGE = (library) => `<!doctype html><meta charset="utf-8">
<link rel="stylesheet" href="lib/uPlot.min.css"><script src="${library === "uplot" ? "lib/uPlot.iife.min.js" : "dygraph.min.js"}"></script>
<body><script>
const charts = [], xs = [], ys = [];
const t0 = Date.now() / 1000 - 600;
for (let i = 0; i < 6000; ++i) { xs.push(t0 + i / 10); ys.push(Math.sin(i / 50)); }
for (let c = 0; c < 20; ++c) {
  const el = document.createElement("div"); document.body.append(el);
  ${library === "uplot"
    ? `charts.push(new uPlot({ width: 600, height: 60, legend: { show: false }, axes: [{ show: false }, { show: false }], cursor: { show: false }, series: [{}, { stroke: "#1b6ec2", points: { show: false } }] }, [xs.slice(), ys.slice()], el));`
    : `el.style.width = "600px"; el.style.height = "60px"; charts.push(new Dygraph(el, xs.map((x, i) => [new Date(x * 1000), ys[i]]), { axes: { x: { drawAxis: false }, y: { drawAxis: false } }, drawGrid: false, legend: "never", showLabelsOnHighlight: false }));`}
}
let n = 6000;
setInterval(() => {
  for (let c = 0; c < 20; ++c) {
    ${library === "uplot"
      ? `const d = charts[c].data; d[0].push(t0 + n / 10); d[1].push(Math.sin(n / 50)); d[0].shift(); d[1].shift(); charts[c].setData(d);`
      : `const d = charts[c].file_; d.push([new Date((t0 + n / 10) * 1000), Math.sin(n / 50)]); d.shift(); charts[c].updateOptions({ file: d });`}
  }
  ++n;
}, 100);
</script>`;
{
  const web = { "bench-uplot.html": LIBRARY_PAGE("uplot") };
  if (existsSync(DYGRAPHS)) {
    web["bench-dygraphs.html"] = LIBRARY_PAGE("dygraphs");
    web["dygraph.min.js"] = readFileSync(DYGRAPHS, "utf8");
  }
  const zel = await start("<root><web_server type=\"web_server\"/></root>", web);
  for (const name of Object.keys(web).filter((n) => n.endsWith(".html"))) {
    const page = await browser.newPage({ viewport: { width: 1400, height: 1400 } });
    const session = await page.context().newCDPSession(page);
    await page.goto(`${zel.base}/${name}`);
    await sleep(2000);
    results[name.replace(/\.html$/, "")] = await measureFrames(page, session, 10);
    await page.close();
  }
  await stop(zel);
}

// 4. Sizes.
const sizeOf = (files) => files.reduce((sum, f) => sum + statSync(f).size, 0);
const gzipOf = (files) => files.reduce((sum, f) => sum + gzipSync(readFileSync(f)).length, 0);
const own = [join(top, "web/app.js"), ...readdirSync(join(top, "web/js")).map((f) => join(top, "web/js", f))];
const chart = [join(top, "web/lib/uPlot.iife.min.js"), join(top, "web/lib/uPlot.min.css")];
results.sizes = {
  pageScriptBytes: sizeOf(own), pageScriptGzip: gzipOf(own),
  chartLibraryBytes: sizeOf(chart), chartLibraryGzip: gzipOf(chart),
  dygraphsBytes: existsSync(DYGRAPHS) ? sizeOf([DYGRAPHS]) : null,
};
await browser.close();
console.log(JSON.stringify(results, null, 2));
