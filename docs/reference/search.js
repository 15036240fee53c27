// SPDX-License-Identifier: LGPL-2.1-or-later
// Full-text search in the pages and the reference. The index is a script, not JSON: a browser loads
// a script from a file:// page too. It is loaded when somebody first searches.
"use strict";

(function() {

const RESULTS = 50;
const SNIPPET = 160;
let index = null;

function score(title, text, words) {
    if (!words.every(word => title.includes(word) || text.includes(word)))
        return 0;
    const phrase = words.join(" ");
    return 1 + (title === phrase ? 16 : 0) + (title.includes(phrase) ? 8 : 0) +
        (words.every(word => title.includes(word)) ? 4 : 0) + (text.includes(phrase) ? 2 : 0);
}

function find(words) {
    return index
        .map(entry => ({ entry, score: score(entry[0].toLowerCase(), entry[3].toLowerCase(), words) }))
        .filter(hit => hit.score > 0)
        .sort((a, b) => b.score - a.score)
        .map(hit => hit.entry);
}

function snippet(text, words) {
    const lower = text.toLowerCase();
    const phrase = lower.indexOf(words.join(" "));
    const at = phrase >= 0 ? phrase : Math.max(0, lower.indexOf(words[0]));
    const start = Math.max(0, at - SNIPPET / 2);
    return (start > 0 ? "… " : "") + text.slice(start, start + SNIPPET) + " …";
}

function element(name, text, parent) {
    const made = document.createElement(name);
    made.textContent = text;
    parent.appendChild(made);
    return made;
}

function show(query) {
    const words = query.toLowerCase().split(/\s+/).filter(word => word);
    const main = document.querySelector("#main");
    const section = document.querySelector("#search");
    main.classList.toggle("hidden", words.length > 0);
    section.classList.toggle("hidden", words.length === 0);
    section.replaceChildren();
    if (words.length === 0)
        return;
    const found = find(words);
    element("h1", `Results for “${query}” (${found.length})`, section);
    const list = element("dl", "", section);
    list.id = "search-results";
    for (const [title, page, href, text] of found.slice(0, RESULTS)) {
        const link = element("a", title, element("dt", "", list));
        link.href = href;
        link.addEventListener("click", () => show(""));
        if (page)
            element("span", ` – ${page}`, link.parentNode);
        element("dd", snippet(text, words), list);
    }
    window.scroll({ top: 0 });
}

// main.js calls this when the page has loaded.
window.onInitSearch = function() {
    const input = document.querySelector("#search-input");
    const update = () => {
        if (index)
            show(input.value);
    };
    window.onSearchIndex = function(entries) {
        index = entries;
        update();
    };
    const load = () => {
        const script = document.createElement("script");
        script.src = "index.js";
        document.head.appendChild(script);
    };
    input.addEventListener("focus", load, { once: true });
    input.addEventListener("input", update);
    document.querySelector("#search-form").addEventListener("submit", event => event.preventDefault());
};

})();
