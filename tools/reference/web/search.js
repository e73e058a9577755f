// The search box of every page, and the filter of the log lines. No network, no library.
"use strict";

// Which of these describe a line of the log, whole or from behind its prefix? Each has a pattern and
// the names of the functions that write it; where the line names one of them, only those are meant.
function describing(entries, line, patternOf, namesOf) {
  const text = line.trim();
  const found = entries.filter((entry) =>
    patternOf(entry) && new RegExp("(^|> )" + patternOf(entry) + "$", "s").test(text));
  const named = /<[^<>]*?(\w+):\d+> /.exec(text)?.[1] ?? /> <(\w+)[>:]/.exec(text)?.[1];
  const meant = found.filter((entry) => namesOf(entry).split(" ").includes(named));
  return meant.length > 0 ? meant : found;
}

function rank(entry, query, words) {
  const [name, , brief] = entry;
  const low = name.toLowerCase();
  if (low === query) return 5;
  if (low.startsWith(query)) return 4;
  if (low.includes(query)) return 3;
  if (words.every((word) => low.includes(word))) return 2;
  return words.every((word) => (low + " " + brief.toLowerCase()).includes(word)) ? 1 : 0;
}

function find(text) {
  const pasted = describing(searchIndex, text, (entry) => entry[4], (entry) => entry[5]);
  if (pasted.length > 0 && text.includes(" ")) return pasted.slice(0, 20);
  const query = text.trim().toLowerCase();
  const words = query.split(/\s+/);
  return searchIndex
    .map((entry) => [rank(entry, query, words), entry])
    .filter(([score]) => score > 0)
    .sort((a, b) => b[0] - a[0] || a[1][0].length - b[1][0].length)
    .slice(0, 20)
    .map(([, entry]) => entry);
}

function itemOf([name, kind, brief, place]) {
  const item = document.createElement("li");
  const link = document.createElement("a");
  link.href = place;
  for (const [tag, words] of [["b", name], ["small", kind], ["span", brief]]) {
    const part = document.createElement(tag);
    part.textContent = words;
    link.append(part);
  }
  item.append(link);
  return item;
}

function setUpSearch() {
  const input = document.getElementById("search");
  const list = document.getElementById("results");
  let chosen = 0;

  function choose(index) {
    const items = list.children;
    if (items.length === 0) return;
    items[chosen]?.classList.remove("chosen");
    chosen = (index + items.length) % items.length;
    items[chosen].classList.add("chosen");
    items[chosen].scrollIntoView({ block: "nearest" });
  }
  function show() {
    list.replaceChildren(...(input.value.trim() ? find(input.value).map(itemOf) : []));
    list.hidden = list.children.length === 0;
    chosen = 0;
    choose(0);
  }

  input.addEventListener("input", show);
  input.addEventListener("focus", show);
  input.addEventListener("keydown", (event) => {
    if (event.key === "ArrowDown") choose(chosen + 1);
    else if (event.key === "ArrowUp") choose(chosen - 1);
    else if (event.key === "Enter") list.children[chosen]?.firstChild.click();
    else if (event.key === "Escape") input.blur();
    else return;
    event.preventDefault();
  });
  document.addEventListener("click", (event) => {
    if (event.target !== input) list.hidden = true;
  });
  document.addEventListener("keydown", (event) => {
    if (event.key !== "/" || event.target.tagName === "INPUT") return;
    input.focus();
    event.preventDefault();
  });
}

function setUpFilter() {
  const input = document.getElementById("filter");
  if (!input) return;
  const count = document.getElementById("count");
  const lines = [...document.querySelectorAll("article.line")];
  const texts = lines.map((line) => line.textContent.toLowerCase());

  function apply() {
    const text = input.value;
    const words = text.toLowerCase().split(/\s+/).filter(Boolean);
    const exact = text.trim()
      ? describing(lines, text, (line) => line.dataset.pattern, (line) => line.dataset.from)
      : [];
    lines.forEach((line, i) => {
      line.hidden = exact.length > 0 ? !exact.includes(line)
                                     : !words.every((word) => texts[i].includes(word));
    });
    for (const section of document.querySelectorAll("section.lines"))
      section.hidden = !section.querySelector("article.line:not([hidden])");
    const shown = lines.filter((line) => !line.hidden).length;
    count.textContent = shown === lines.length ? `${shown} lines` : `${shown} of ${lines.length}`;
  }

  input.addEventListener("input", apply);
  input.value = new URLSearchParams(location.search).get("q") ?? "";
  apply();
}

setUpSearch();
setUpFilter();
