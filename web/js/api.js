// The server's HTTP API: tree descriptions, sets, the interlock overview and
// the log.
import { parseJson } from "./format.js";

const encodePath = (path) => path.split("/").filter(Boolean).map(encodeURIComponent).join("/");

async function getJson(url) {
  const response = await fetch(url, { cache: "no-store" });
  if (!response.ok) throw new Error(`${url}: ${response.status} ${response.statusText}`);
  return parseJson(await response.text());
}

export function describe(path, depth = 1) {
  const where = path ? `/${encodePath(path)}` : "";
  return getJson(`/api/tree${where}?depth=${depth}`);
}

export const interlocks = () => getJson("/api/interlocks");

export const logAfter = (sequence, limit = 200) => getJson(`/api/log?after=${sequence}&limit=${limit}`);

export const alarmsAfter = (id, limit) => getJson(`/api/alarms?after=${id}&limit=${limit}`);

// Acknowledges one alarm (its id) or, without one, all. Resolves {ok, error}
// as setField does.
export async function acknowledgeAlarms(id) {
  try {
    const response = await fetch(id === undefined ? "/api/alarms/ack-all" : `/api/alarms/${id}/ack`, { method: "POST" });
    if (response.ok) return { ok: true };
    return { ok: false, error: response.headers.get("X-Zel-Error") || `The server refused (${response.status}).` };
  } catch (error) {
    return { ok: false, error: `No answer from the instrument: ${error.message}` };
  }
}

// Where the interlock manager's "Generate" leaves its report.
export const INTERLOCK_REPORT = "/reports/interlock_report.csv";

// Sets a field from its value text. Resolves {ok, error}; error is the
// server's reason in words for the operator.
export async function setField(path, text) {
  try {
    const response = await fetch(`/io/${encodePath(path)}`, { method: "PUT", body: text });
    const body = await response.json().catch(() => ({}));
    if (response.ok && body.status === "success") return { ok: true };
    return { ok: false, error: response.headers.get("X-Zel-Error") || `The server refused (${response.status}).` };
  } catch (error) {
    return { ok: false, error: `No answer from the instrument: ${error.message}` };
  }
}
