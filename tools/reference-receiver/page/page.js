// The page: one stream of events from the receiver, and what is made of it.
import { lossesOf, showBooks, showHealth, standing } from "./books.js";
import { Chart } from "./chart.js";
import { showDetails } from "./details.js";
import { EventList } from "./list.js";
import { count, shown } from "./text.js";
import { KINDS, loss } from "./words.js";

const SILENCE = 15000; // milliseconds: books come every five seconds at the latest
const AGAIN = 2000;
const MAX_CHOICES = 200;

const at = (id) => document.getElementById(id);
const list = new EventList(at("list"), at("space"));
const chart = new Chart(at("chart"), at("legend"));

// ---- the stream

let source = null;
let run = "";
let last = ""; // the id of the last event
let heard = 0;
let again = 0;
let isLive = false;

function tell(state, text) {
  isLive = state === "live";
  document.body.dataset.link = state;
  if (at("link-text").textContent !== text) at("link-text").textContent = text;
  updateEmpty();
}

function connect() {
  clearTimeout(again);
  source?.close();
  heard = Date.now();
  source = new EventSource(last ? `events?after=${last}` : "events");
  const on = (name, take) =>
    source.addEventListener(name, (message) => {
      heard = Date.now();
      take(JSON.parse(message.data), message);
    });
  on("start", (start) => {
    if (start.run !== run) {
      run = start.run;
      last = "";
      list.reset(start.max);
      closeDetails();
    }
    tell("live", "Live");
  });
  on("events", (events, message) => {
    last = message.lastEventId;
    takeEvents(events);
  });
  on("health", takeHealth);
  on("books", takeBooks);
  source.addEventListener("error", lose);
}

// Why there is no stream is asked of the page itself: a stream that fails does not say.
async function lose() {
  source.close();
  clearTimeout(again);
  again = setTimeout(connect, AGAIN);
  try {
    const answer = await fetch("./", { cache: "no-store" });
    if (answer.ok) tell("waiting", "The receiver has no room for one more page. Trying again…");
    else tell("gone", "The receiver was started anew: open the address that it prints now.");
  } catch {
    tell("gone", "The receiver does not answer. Trying again…");
  }
}

setInterval(() => {
  if (isLive && Date.now() - heard > SILENCE) {
    tell("waiting", "No word from the receiver. Trying again…");
    connect();
  }
}, 1000);

// ---- events

const choices = { action: new Set(), agent: new Map() };

function offer(select, value, text) {
  const option = document.createElement("option");
  option.value = value;
  option.textContent = text;
  const before = [...select.options].slice(1).find((other) => other.textContent > text);
  select.insertBefore(option, before ?? null);
}

// What has no room among the choices is said to be missing there; other filters find it.
function hasRoom(known, select) {
  if (known.size < MAX_CHOICES) return true;
  if (!select.lastElementChild.disabled) {
    const option = select.appendChild(document.createElement("option"));
    option.textContent = "more are not listed";
    option.disabled = true;
  }
  return false;
}

function takeEvents(events) {
  unread += list.add(events);
  for (const event of events) {
    if (!choices.action.has(event.label) && hasRoom(choices.action, at("filter-action"))) {
      choices.action.add(event.label);
      offer(at("filter-action"), event.label, shown(event.label));
    }
    const known = choices.agent.has(event.agent);
    if (choices.agent.get(event.agent) !== event.host && (known || hasRoom(choices.agent, at("filter-agent")))) {
      choices.agent.set(event.agent, event.host);
      const text = event.host ? `${shown(event.host)} (${shown(event.agent).slice(0, 8)})` : shown(event.agent);
      const option = known && [...at("filter-agent").options].find((one) => one.value === event.agent);
      if (option) option.textContent = text;
      else offer(at("filter-agent"), event.agent, text);
    }
  }
}

let unread = 0;

list.onChange = () => {
  const all = list.events.length;
  const some = list.visibleCount;
  at("count").textContent = some === all ? `${count(all)} shown` : `${count(some)} of ${count(all)} shown`;
  if (list.isAtTop) unread = 0;
  at("newer").hidden = unread === 0;
  at("newer").textContent = `${count(unread)} newer`;
  updateEmpty();
};

function updateEmpty() {
  const empty = at("empty");
  empty.hidden = list.visibleCount > 0;
  if (list.events.length) empty.textContent = "No event passes the filters.";
  else if (isLive) empty.textContent = "No event yet. They appear here as soon as an agent uploads them.";
  else empty.textContent = at("link-text").textContent;
}

at("newer").addEventListener("click", () => list.toTop());

// ---- filters

const filters = ["kind", "action", "path", "actor", "agent"];

function applyFilters() {
  const [kind, action, path, actor, agent] = filters.map((name) => at(`filter-${name}`).value);
  const [inPath, inActor] = [path.toLowerCase(), actor.toLowerCase()];
  at("filter-clear").disabled = ![kind, action, path, actor, agent].some(Boolean);
  unread = 0;
  list.filter(
    (event) =>
      (!kind || event.kind === kind) &&
      (!action || event.label === action) &&
      (!agent || event.agent === agent) &&
      (!inPath || event.pathText.includes(inPath)) &&
      (!inActor || event.actorText.includes(inActor)),
  );
}

for (const name of filters) {
  const field = at(`filter-${name}`);
  field.addEventListener(field.tagName === "SELECT" ? "change" : "input", applyFilters);
}
at("filters").addEventListener("submit", (event) => event.preventDefault());
at("filter-clear").addEventListener("click", () => {
  at("filters").reset();
  applyFilters();
  at("filter-path").focus();
});
at("filters").reset(); // browsers keep values over a reload, but not what they filtered

// ---- details

list.onSelect = (event) => {
  at("details").hidden = false;
  showDetails(at("details-title"), at("details-body"), event, list.events);
  at("details").parentElement.scrollTop = 0;
};

function closeDetails() {
  at("details").hidden = true;
  if (list.selected) list.select(null);
}

const select = list.onSelect;
list.onSelect = (event) => event && select(event);

at("details-close").addEventListener("click", () => {
  closeDetails();
  at("list").focus();
});

document.addEventListener("keydown", (event) => {
  if (event.key === "Escape" && !at("details").hidden) {
    closeDetails();
    at("list").focus();
  } else if (event.key === "Enter" && event.target === at("list") && list.selected) {
    at("details-title").focus();
  } else if (event.key === "/" && !/^(INPUT|SELECT)$/.test(event.target.tagName)) {
    event.preventDefault();
    at("filter-path").focus();
  }
});

// ---- health and books

function figure(name, value, note, state = "") {
  at(`tile-${name}`).textContent = value;
  at(`tile-${name}-note`).textContent = note;
  at(`tile-${name}`).parentElement.dataset.state = state;
}

function takeHealth(rows) {
  showHealth(at("health-body"), rows);
  const now = standing(rows);
  const bad = now.filter((row) => row.state !== "1").length;
  if (!now.length) figure("health", "–", "nothing told yet");
  else if (bad) figure("health", `${count(bad)} bad`, `of ${count(now.length)} states`, "bad");
  else figure("health", "Good", `all ${count(now.length)} states`, "good");
}

function takeBooks(books) {
  chart.rates = books.rates;
  const minute = 60 / books.rates.step;
  const rates = Object.keys(KINDS).map((kind) => books.rates[kind].slice(-minute).reduce((a, b) => a + b, 0) / 60);
  const rate = rates.reduce((a, b) => a + b, 0);
  figure("rate", rate >= 10 ? rate.toFixed(0) : rate.toFixed(1), "in the last minute");
  figure("events", count(books.fim + books.ioc), `events in ${count(books.uploads)} uploads`);
  figure("agents", count(books.agentCount), books.agentCount === 1 ? "has sent something" : "have sent something");
  const lost = lossesOf(books);
  const worst = Object.entries(books.lost)
    .filter(([name]) => loss(name).kind !== "design")
    .sort((a, b) => b[1] - a[1])[0];
  if (lost.loss || lost.bytes) {
    figure("lost", count(lost.loss || lost.bytes), shown(worst ? loss(worst[0]).words : "batches missing"), "bad");
  } else {
    figure("lost", "0", "as agents report it", books.agentCount ? "good" : "");
  }
  showBooks(at("books-body"), books);
}

connect();
