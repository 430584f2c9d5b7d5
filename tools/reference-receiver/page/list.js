// The list of events, newest first: as many rows as can be seen, whatever the list has.
import { clock, make, show, shown } from "./text.js";
import { action } from "./words.js";

const ROW = 30; // pixels, as in page.css
const PAGE = 10;

const baseOf = (path) => path.slice(path.lastIndexOf("/") + 1) || path;

// What an event is looked for by, made once: what one sees is what one can type.
export function prepare(event) {
  const actor = event.actor ?? {};
  event.label = action(event);
  event.pathText = shown([event.path, event.to, event.arguments].filter(Boolean).join(" ")).toLowerCase();
  event.actorText = shown(
    [actor.path, actor.pid, actor.user, actor.auditUser, actor.title, event.kind === "ioc" ? event.user : ""]
      .filter(Boolean)
      .join(" "),
  ).toLowerCase();
  return event;
}

export class EventList {
  #place;
  #space;
  #rows = [];
  #events = []; // oldest first
  #visible = []; // those that the filter lets through
  #passes = () => true;
  #selected = null;
  #limit = 10000;
  #drawing = false;
  onSelect = () => {};
  onChange = () => {};

  constructor(place, space) {
    this.#place = place;
    this.#space = space;
    place.addEventListener("scroll", () => this.#later());
    place.addEventListener("keydown", (event) => this.#key(event));
    space.addEventListener("click", (event) => {
      const row = event.target.closest(".row");
      if (row) this.select(row.item);
    });
    new ResizeObserver(() => this.#later()).observe(place);
  }

  get events() {
    return this.#events;
  }
  get visibleCount() {
    return this.#visible.length;
  }
  get selected() {
    return this.#selected;
  }

  reset(limit) {
    this.#events = [];
    this.#visible = [];
    this.#selected = null;
    this.#limit = limit;
    this.#later();
  }

  add(events) {
    for (const event of events) this.#events.push(prepare(event));
    const added = events.filter(this.#passes);
    for (const event of added) this.#visible.push(event);
    const surplus = this.#events.length - this.#limit;
    if (surplus > 0) {
      this.#events.splice(0, surplus);
      const oldest = this.#events[0].n;
      const gone = this.#visible.findIndex((event) => event.n >= oldest);
      this.#visible.splice(0, gone < 0 ? this.#visible.length : gone);
    }
    // Whoever reads further down keeps what he reads.
    if (this.#place.scrollTop > 0 && added.length) {
      this.#resize();
      this.#place.scrollTop += added.length * ROW;
    }
    this.#later();
    return added.length;
  }

  filter(passes) {
    this.#passes = passes;
    this.#visible = this.#events.filter(passes);
    this.#resize();
    // What is selected stays in sight if it passes.
    const middle = (this.#place.clientHeight - ROW) / 2;
    this.#place.scrollTop = Math.max(0, this.#indexOfSelected() * ROW - middle);
    this.#later();
  }

  select(item) {
    this.#selected = item;
    this.#later();
    this.onSelect(item);
  }

  toTop() {
    this.#place.scrollTop = 0;
    this.#later();
  }
  get isAtTop() {
    return this.#place.scrollTop < ROW;
  }

  #at(index) {
    return this.#visible[this.#visible.length - 1 - index];
  }

  #indexOfSelected() {
    if (!this.#selected) return -1;
    const at = this.#visible.lastIndexOf(this.#selected);
    return at < 0 ? -1 : this.#visible.length - 1 - at;
  }

  #key(event) {
    if (event.ctrlKey || event.altKey || event.metaKey || !this.#visible.length) return;
    const last = this.#visible.length - 1;
    const now = this.#indexOfSelected();
    const next = {
      ArrowDown: now + 1,
      ArrowUp: now - 1,
      PageDown: now + PAGE,
      PageUp: now - PAGE,
      Home: 0,
      End: last,
    }[event.key];
    if (next === undefined) return;
    event.preventDefault();
    const index = Math.min(last, Math.max(0, next));
    const top = index * ROW;
    if (top < this.#place.scrollTop) this.#place.scrollTop = top;
    const bottom = top + ROW - this.#place.clientHeight;
    if (bottom > this.#place.scrollTop) this.#place.scrollTop = bottom;
    this.select(this.#at(index));
  }

  #resize() {
    this.#space.style.height = `${this.#visible.length * ROW}px`;
  }

  #later() {
    if (this.#drawing) return;
    this.#drawing = true;
    requestAnimationFrame(() => {
      this.#drawing = false;
      this.#draw();
      this.onChange();
    });
  }

  #draw() {
    this.#resize();
    const first = Math.max(0, Math.floor(this.#place.scrollTop / ROW) - 2);
    const room = Math.ceil(this.#place.clientHeight / ROW) + 4;
    const shownCount = Math.max(0, Math.min(room, this.#visible.length - first));
    while (this.#rows.length < shownCount) this.#rows.push(this.#makeRow());
    let active = "";
    this.#rows.forEach((row, i) => {
      row.hidden = i >= shownCount;
      if (row.hidden) {
        row.item = null;
        return;
      }
      const item = this.#at(first + i);
      row.style.transform = `translateY(${(first + i) * ROW}px)`;
      row.setAttribute("aria-posinset", first + i + 1);
      row.setAttribute("aria-setsize", this.#visible.length);
      row.setAttribute("aria-selected", item === this.#selected);
      if (item === this.#selected) active = row.id;
      if (row.item !== item) this.#fill(row, item);
    });
    if (active) this.#place.setAttribute("aria-activedescendant", active);
    else this.#place.removeAttribute("aria-activedescendant");
  }

  #makeRow() {
    const row = document.createElement("div");
    row.className = "row";
    row.id = `row-${this.#rows.length}`;
    row.setAttribute("role", "option");
    for (const name of ["time", "kind", "action", "object", "actor", "agent"]) {
      row[name] = row.appendChild(make("span", "", name));
    }
    this.#space.append(row);
    return row;
  }

  #fill(row, item) {
    row.item = item;
    row.dataset.n = item.n;
    const actor = item.actor ?? {};
    show(row.time, clock(item.time ?? item.received));
    row.kind.replaceChildren(make("i", "", `dot ${item.kind}`), item.kind === "ioc" ? "IOC" : "FIM");
    show(row.action, item.label);
    row.object.replaceChildren(...objectOf(item));
    row.actor.replaceChildren(...actorOf(item, actor));
    show(row.agent, item.host || item.agent);
  }
}

// A path keeps its last part when there is no room for all of it.
export function pathParts(path) {
  const text = path || "–";
  const at = text.length > 1 ? text.lastIndexOf("/", text.length - 2) + 1 : 0;
  return [make("span", text.slice(0, at), "folder"), make("span", text.slice(at), "name")];
}

function objectOf(item) {
  const parts = pathParts(item.path);
  if (item.to) parts.push(make("span", "→", "arrow"), ...pathParts(item.to));
  if (item.arguments) parts.push(make("span", item.arguments, "arguments"));
  return parts;
}

function actorOf(item, actor) {
  if (!actor.path && !actor.pid) return [make("span", item.action === "Baseline" ? "–" : "not seen", "faint")];
  const who = actor.auditUser && actor.auditUser !== "system-user" ? actor.auditUser : actor.user;
  return [make("span", baseOf(actor.path ?? "–"), "name"), make("span", ` ${actor.pid ?? ""} ${who ?? ""}`, "faint")];
}
