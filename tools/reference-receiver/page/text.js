// Names come from whoever made a file, so nothing of them is ever markup: all that is shown goes through this file into
// text nodes, and what cannot be seen, or would turn the text around it, is shown as an escape.

// Controls, format characters (bidirectional ones among them), separators and blanks but the plain one, what is shown as
// nothing (joiners, fillers, selectors of a variation), private and lone surrogate code points, and the backslash, which
// begins an escape.
const HIDDEN = /[\\\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Cs}\p{Co}\p{DI}\u2800]|[^\S ]/gu;

function escapeOf(character) {
  if (character === "\\") return "\\\\";
  const code = character.codePointAt(0).toString(16);
  return code.length <= 2 ? `\\x${code.padStart(2, "0")}` : `\\u{${code}}`;
}

// What is shown of a text, as a text.
export function shown(text) {
  return String(text ?? "").replace(HIDDEN, escapeOf);
}

// Puts a text into an element, in the place of what was there; escapes are marked, so that nothing else looks like one.
export function show(element, text) {
  const raw = String(text ?? "");
  if (raw.search(HIDDEN) < 0) {
    element.textContent = raw;
    return element;
  }
  element.replaceChildren();
  let end = 0;
  for (const match of raw.matchAll(HIDDEN)) {
    if (match.index > end) element.append(raw.slice(end, match.index));
    const escape = document.createElement("span");
    escape.className = "escape";
    escape.textContent = escapeOf(match[0]);
    element.append(escape);
    end = match.index + match[0].length;
  }
  element.append(raw.slice(end));
  return element;
}

// A new element with a text and a class.
export function make(tag, text = "", className = "") {
  const element = document.createElement(tag);
  if (className) element.className = className;
  return show(element, text);
}

const NUMBERS = new Intl.NumberFormat("en");

export function count(number) {
  return NUMBERS.format(number);
}

export function bytes(number) {
  if (!Number.isFinite(number)) return "";
  if (number < 1024) return `${number} B`;
  const units = ["KiB", "MiB", "GiB", "TiB"];
  let unit = -1;
  do {
    number /= 1024;
    unit += 1;
  } while (number >= 1024 && unit < units.length - 1);
  return `${number.toFixed(1)} ${units[unit]}`;
}

const two = (number) => String(number).padStart(2, "0");

// The local time of day; with the date in front when it is not today.
export function clock(time) {
  const date = new Date(time);
  if (Number.isNaN(date.getTime())) return "–";
  const day = `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
  const isToday = date.toDateString() === new Date().toDateString();
  return isToday ? day : `${two(date.getMonth() + 1)}-${two(date.getDate())} ${day}`;
}

export function ago(milliseconds) {
  const seconds = Math.max(0, Math.round(milliseconds / 1000));
  if (seconds < 60) return `${seconds} s ago`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ago`;
  if (seconds < 86400) return `${Math.floor(seconds / 3600)} h ago`;
  return `${Math.floor(seconds / 86400)} days ago`;
}
