// What events, rows and counts are called on the page.

const ACTIONS = {
  RUNNING: "Start",
  TERMINATED: "End",
  ESTABLISHED: "Connect",
  NONE: "Seen",
};

// Both kinds of events have the same words for the same thing: "Create" and "CREATE" are one.
export function action(event) {
  const word = String(event.action ?? "–").slice(0, 24);
  if (event.kind !== "ioc") return word;
  return ACTIONS[word] ?? word.charAt(0) + word.slice(1).toLowerCase();
}

export const KINDS = { fim: "File integrity", ioc: "Indicators", health: "Health" };

// Losses that agents report, by their field. What is dropped by design is no loss.
const LOSSES = {
  kernelLost: ["records that the kernel dropped", "loss"],
  queueDropped: ["bytes at the parser's bound", "bytes"],
  bytesAtStop: ["bytes not parsed at a stop", "bytes"],
  eventsDropped: ["events that could not be processed", "loss"],
  leftAtStop: ["events left at a stop", "loss"],
  unplaced: ["events whose path cannot be trusted", "loss"],
  componentDropped: ["events that a component dropped", "loss"],
  spoolRefused: ["documents that the spool refused", "loss"],
  spoolRemovedFiles: ["spool files removed before they were sent", "loss"],
  spoolRemovedBytes: ["bytes of these files", "bytes"],
  notBuilt: ["records of no event, by design", "design"],
  unsupportedCall: ["calls that are not followed, by design", "design"],
  fileReplaced: ["events of replaced files, by design", "design"],
};

export function loss(name) {
  const [words, kind] = Object.hasOwn(LOSSES, name) ? LOSSES[name] : [name, "loss"];
  return { words, kind };
}

// A row of health: whose it is and what it says.
export function health(row) {
  const code = Number(row.code);
  const fields = row.fields ?? {};
  const part = code > 4100 ? "Indicators" : "File integrity";
  const why = fields.reason ? `: ${fields.reason}` : "";
  switch (code % 100) {
    case 1:
      return { subject: part, says: `${fields.component ?? "–"}${why}` };
    case 2:
      return { subject: `${part}, manifest`, says: `${fields.manifest ?? "–"}: ${row.context ?? ""}${why}` };
    case 3:
      return {
        subject: `${part}, upload`,
        says: row.state === "1" ? "accepted" : `failed, ${statusOf(fields.httpStatus)}`,
      };
    case 4:
      return { subject: "Losses", says: lossesOf(fields) };
    default:
      return { subject: `${row.code ?? "–"} ${row.context ?? ""}`, says: JSON.stringify(fields) };
  }
}

function statusOf(status) {
  return status && status !== "0" ? `HTTP ${status}` : "no answer";
}

function lossesOf(fields) {
  const parts = [];
  if (fields.auditSilent) parts.push(`audit is silent: ${fields.auditSilent}`);
  if (fields.intakeEnded) parts.push(`the intake has ended: ${fields.intakeEnded}`);
  for (const [name, value] of Object.entries(fields)) {
    if (Number(value) > 0 && loss(name).kind !== "design") parts.push(`${value} ${loss(name).words}`);
  }
  return parts.length ? parts.join(", ") : "nothing lost";
}
