// The books: what came, what was refused, and what agents say that they lost. And the rows of health.
import { ago, bytes, clock, count, make } from "./text.js";
import { health, KINDS, loss } from "./words.js";

function pairs(rows) {
  const list = make("dl", "", "counts");
  for (const [name, value, className] of rows) list.append(make("dt", name), make("dd", value, className ?? ""));
  return list;
}

export function lossesOf(books) {
  const sums = { loss: books.lostBatches, bytes: 0, design: 0 };
  for (const [name, value] of Object.entries(books.lost)) sums[loss(name).kind] += value;
  return sums;
}

export function showBooks(place, books) {
  const refused = Object.entries(books.refused);
  const lost = Object.entries(books.lost);
  const parts = [
    pairs([
      ["Since", clock(books.started)],
      ["Uploads accepted", count(books.uploads)],
      ["Their size", bytes(books.bytes)],
      ["Came again", count(books.repeated)],
      [KINDS.fim, count(books.fim)],
      [KINDS.ioc, count(books.ioc)],
      [KINDS.health, count(books.health)],
      ["No longer in the list", count(books.forgotten)],
      ["Not readable here", count(books.unreadable)],
    ]),
    make("h3", "Lost, as agents report it"),
  ];
  if (lost.length || books.lostBatches) {
    const rows = lost.map(([name, value]) => [loss(name).words, count(value), loss(name).kind === "design" ? "" : "bad"]);
    if (books.lostBatches) rows.push(["batches missing from their sequence", count(books.lostBatches), "bad"]);
    parts.push(pairs(rows));
  } else {
    parts.push(make("p", "Nothing, so far.", "note"));
  }
  parts.push(make("h3", "Refused here"));
  parts.push(
    refused.length
      ? pairs(refused.map(([reason, value]) => [reason, count(value), "bad"]))
      : make("p", "No request, so far.", "note"),
  );
  parts.push(make("h3", "Agents"));
  if (!books.agents.length) parts.push(make("p", "None has sent anything yet.", "note"));
  for (const agent of books.agents) {
    const item = make("div", "", "agent-book");
    item.append(make("p", agent.host || agent.agent, "name"));
    if (agent.host) item.append(make("p", agent.agent, "digest"));
    const missing = agent.lostBatches ? `, ${count(agent.lostBatches)} batches missing` : "";
    const told = `${count(agent.uploads)} uploads, ${count(agent.fim)} file events, ${count(agent.ioc)} indicators${missing}; heard ${ago(books.now - agent.heard)}`;
    item.append(make("p", told, "note"));
    parts.push(item);
  }
  if (books.agentCount > books.agents.length) {
    parts.push(make("p", `and ${count(books.agentCount - books.agents.length)} more agents`, "note"));
  }
  place.replaceChildren(...parts);
}

// The newest row of each subject of each agent: how things are now.
export function standing(rows) {
  const latest = new Map();
  for (const row of rows) latest.set(`${row.agent} ${row.code} ${row.context}`, row);
  return [...latest.values()];
}

export function showHealth(place, rows) {
  if (!rows.length) {
    place.replaceChildren(make("p", "No agent has told of its health yet. Rows come at its start and every five minutes.", "note"));
    return;
  }
  const list = make("ul", "", "health");
  for (const row of rows.slice(-30).reverse()) {
    const isGood = row.state === "1";
    const { subject, says } = health(row);
    const item = list.appendChild(make("li", "", isGood ? "good" : "bad"));
    item.append(make("span", isGood ? "good" : "bad", "state"));
    const text = item.appendChild(make("div"));
    text.append(make("p", subject, "name"), make("p", says));
    item.append(make("span", `${clock(row.time)} ${row.host || ""}`, "note"));
  }
  place.replaceChildren(list);
}
