// SPDX-License-Identifier: LGPL-2.1-or-later
// Full-text search in the pages and the reference. The index is a script, not JSON, since a browser
// loads a script from a file:// page too. The first search loads it.
"use strict";

(function() {

const RESULTS = 50;
const SNIPPET = 160;
let index = [];

function rank(title, text, words) {
    const phrase = words.join(" ");
    const tests = [title === phrase, title.includes(phrase),
                   words.every(word => title.includes(word)), text.includes(phrase)];
    return tests.includes(true) ? tests.indexOf(true) : tests.length;
}

function find(words) {
    return index
        .map(entry => [entry, entry[0].toLowerCase(), entry[3].toLowerCase()])
        .filter(([, title, text]) => words.every(word => `${title}\n${text}`.includes(word)))
        .map(([entry, title, text]) => ({ entry, rank: rank(title, text, words) }))
        .sort((a, b) => a.rank - b.rank)
        .map(hit => hit.entry);
}

function snippet(text, words) {
    const lower = text.toLowerCase();
    const at = Math.max(lower.indexOf(words.join(" ")), lower.indexOf(words[0]));
    const start = Math.max(0, at - SNIPPET / 2);
    return (start > 0 ? "… " : "") + text.slice(start, start + SNIPPET) + " …";
}

function append(parent, name, text) {
    const made = document.createElement(name);
    made.textContent = text;
    return parent.appendChild(made);
}

function show(query) {
    const words = query.toLowerCase().split(/\s+/).filter(word => word);
    const section = document.querySelector("#search");
    document.querySelector("#main").classList.toggle("hidden", words.length > 0);
    section.classList.toggle("hidden", words.length === 0);
    section.replaceChildren();
    if (words.length === 0)
        return;
    const found = find(words);
    append(section, "h1", `Results for “${query}” (${found.length})`);
    const list = append(section, "dl", "");
    list.id = "search-results";
    for (const [title, page, href, text] of found.slice(0, RESULTS)) {
        const term = append(list, "dt", "");
        const link = append(term, "a", title);
        link.href = href;
        link.addEventListener("click", () => show(""));
        append(term, "span", page && ` – ${page}`);
        append(list, "dd", snippet(text, words));
    }
    window.scroll({ top: 0 });
}

// main.js calls this when the page has loaded.
window.onInitSearch = function() {
    const input = document.querySelector("#search-input");
    window.onSearchIndex = entries => {
        index = entries;
        show(input.value);
    };
    input.addEventListener("focus", () => {
        append(document.head, "script", "").src = "index.js";
    }, { once: true });
    input.addEventListener("input", () => show(input.value));
    input.form.addEventListener("submit", event => event.preventDefault());
};

})();
