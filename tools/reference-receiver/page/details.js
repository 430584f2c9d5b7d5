// Everything that is known of one event.
import { pathParts } from "./list.js";
import { bytes, make, show } from "./text.js";
import { KINDS } from "./words.js";

const utc = (time) => {
  const date = new Date(time);
  return Number.isNaN(date.getTime()) ? String(time ?? "–") : date.toISOString().replace(".000", "").replace("T", " ");
};

function table(pairs) {
  const list = make("dl");
  for (const [name, value, className] of pairs) {
    if (value === undefined || value === null || value === "") continue;
    list.append(make("dt", name), make("dd", value, className ?? ""));
  }
  return list;
}

function section(title, ...content) {
  const element = make("div", "", "part");
  element.append(make("h3", title), ...content);
  return element;
}

// 644 is shown as 0644: the digits are octal.
function permission(value) {
  return value === undefined ? "" : String(value).padStart(4, "0");
}

function ofSettings(settings) {
  return {
    Owner: settings.owner === undefined ? "" : `${settings.owner} (${settings.uid})`,
    Group: settings.group === undefined ? "" : `${settings.group} (${settings.gid})`,
    Permission: permission(settings.permission),
  };
}

function compare(before, after) {
  const grid = make("table", "", "compare");
  const head = grid.appendChild(make("tr"));
  for (const title of ["", "Before", "After"]) head.append(make("th", title));
  for (const name of Object.keys(after)) {
    const row = grid.appendChild(make("tr"));
    const changed = before[name] !== after[name] ? "changed" : "";
    row.append(make("th", name), make("td", before[name] ?? "–", changed), make("td", after[name] || "–", changed));
  }
  return grid;
}

// The content that an event brought: lines of text. An end that was cut is no whole group of four, nor a whole character.
function contentOf(event) {
  if (event.content === undefined) return null;
  try {
    const whole = event.content.slice(0, event.content.length - (event.content.length % 4));
    const raw = Uint8Array.from(atob(whole), (character) => character.charCodeAt(0));
    return new TextDecoder().decode(raw).split("\n");
  } catch {
    return ["(the content cannot be read)"];
  }
}

// The last content of the same file before this event.
function contentBefore(event, events) {
  for (let i = events.length - 1; i >= 0; i -= 1) {
    const other = events[i];
    if (other.n < event.n && other.agent === event.agent && other.path === event.path && other.content !== undefined) return other;
  }
  return null;
}

function contentView(lines, others) {
  const known = new Set(others ?? lines);
  const view = make("pre", "", "content");
  lines.slice(0, 400).forEach((line) => view.append(make("span", line, known.has(line) ? "" : "changed"), "\n"));
  return view;
}

function contents(event, events) {
  const now = contentOf(event);
  if (now === null) return [];
  const earlier = contentBefore(event, events);
  const before = earlier && contentOf(earlier);
  const parts = [];
  if (before) parts.push(make("h4", "Before"), contentView(before, now));
  if (event.contentStatus && event.contentStatus !== "READ_SUCCESSFUL") {
    parts.push(make("p", `No content: ${event.contentStatus}`, "note"));
  } else {
    parts.push(make("h4", before ? "After" : "Content"), contentView(now, before));
  }
  return [section("Content", ...parts)];
}

// From the oldest ancestor down to who acted.
function ancestry(event) {
  const chain = [...event.ancestry].reverse();
  if (event.what === "Process") {
    chain.push({ pid: event.pid, path: event.path, user: event.user, arguments: event.arguments, isSelf: true });
  }
  const tree = make("ol", "", "ancestry");
  chain.forEach((process, depth) => {
    const item = make("li");
    item.style.setProperty("--depth", Math.min(depth, 10));
    const line = make("p");
    line.append(...(process.path ? pathParts(process.path) : [make("span", "program not known", "faint")]));
    line.append(make("span", ` ${process.pid} ${process.user ?? ""}`, "faint"));
    item.append(line);
    if (process.arguments) item.append(make("p", process.arguments, "arguments"));
    if (depth === chain.length - 1) item.setAttribute("aria-current", "true");
    tree.append(item);
  });
  return chain.length ? tree : make("p", "Nobody is known to have done it.", "note");
}

function size(event) {
  if (event.size === undefined) return "";
  const number = Number(event.size);
  return Number.isFinite(number) ? bytes(number) : event.size;
}

export function showDetails(title, body, event, events) {
  const actor = event.actor ?? {};
  show(title, `${event.label}: ${event.to ?? event.path ?? ""}`.slice(0, 200));
  const parts = [
    section(
      "What",
      table([
        ["Action", event.label],
        ["Object", event.what],
        [event.to ? "Old path" : event.what === "Network" ? "Peer" : "Path", event.path, "path"],
        ["New path", event.to, "path"],
        ["Arguments", event.arguments, "path"],
        ["Folder", event.folder, "path"],
        ["Process", event.pid],
        ["User", event.kind === "ioc" ? event.user : ""],
        ["Elevated", event.elevated ? "yes: a user who logged in acts as root" : ""],
        ["Success", event.success],
        ["Size", size(event)],
        ["Type", event.type],
        ["SHA-256", event.sha256, "digest"],
        ["Settings", event.settings, "path"],
        ["Name's bytes", event.pathBytes, "digest"],
      ]),
    ),
  ];
  if (event.before || event.after) {
    parts.push(section("Before and after", compare(ofSettings(event.before ?? {}), ofSettings(event.after ?? {}))));
  } else if (event.to) {
    parts.push(section("Before and after", compare({ Path: event.path }, { Path: event.to })));
  }
  parts.push(...contents(event, events));
  if (event.ancestry) parts.push(section("Who: the process and its ancestors", ancestry(event)));
  if (event.kind === "fim") {
    const isKnown = actor.path || actor.pid;
    const who = table([
      ["Program", actor.path, "path"],
      ["Process", actor.pid],
      ["User", actor.user],
      ["Logged in as", actor.auditUser === "system-user" ? "nobody" : actor.auditUser],
      ["Command", actor.title, "path"],
    ]);
    parts.push(section("Who", isKnown ? who : make("p", "Nobody was seen doing it.", "note")));
  }
  parts.push(
    section(
      "When and where",
      table([
        ["Time", utc(event.time)],
        ["Received", utc(event.received)],
        ["Host", event.host],
        ["Agent", event.agent, "digest"],
        ["Event", event.eventId],
        ["Kind", KINDS[event.kind]],
        ["Rules", event.rules?.join(" "), "digest"],
      ]),
    ),
  );
  if (event.cut) parts.push(make("p", "Some texts of this event are longer than the page keeps: they end early here.", "note"));
  body.replaceChildren(...parts);
}
