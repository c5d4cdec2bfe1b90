// @ts-check
// The help, made from the list of keys, and a hint for whoever sees the page for the first time.
import { byId, html } from "./dom.js";
import { bindings } from "./keys.js";

const pointer = [
    ["Drag", "turn"],
    ["Wheel", "zoom to the pointer; with Shift in a slab: go through it"],
    ["Middle button, or Shift and drag", "move"],
    ["Right button and drag", "window of a MIP; opacity and shift of a rendering"],
    ["Click", "pick a point, a vessel or a distance, as chosen above"],
    ["Alt and click", "pick a vessel"],
];
const touch = [
    ["One finger", "turn"],
    ["Two fingers", "zoom and move"],
    ["Three fingers", "window, or opacity and shift"],
    ["Tap", "pick"],
];

/** @param {string} title @param {string[][]} rows */
const table = (title, rows) => html("section", {}, html("h3", {}, title),
    html("dl", {}, ...rows.flatMap(([what, does]) => [html("dt", {}, what), html("dd", {}, does)])));

export function makeHelp() {
    const dialog = /** @type {HTMLDialogElement} */ (byId("help"));
    dialog.append(
        html("header", {}, html("h2", { id: "help-title" }, "Help"),
            html("button", { type: "button", class: "icon", "aria-label": "Close", onclick: () => dialog.close() }, "\u00d7")),
        html("div", { class: "tables" }, table("Mouse", pointer), table("Touch", touch), table("Keys", bindings.map(b => [b.shown, b.does]))),
        html("p", { class: "quiet" }, "Every control is also reached with Tab. Positions are in the patient: R right, L left, A front, P back, S head, I feet. ",
            "The pictures are no medical device: do not diagnose with them."));
    dialog.addEventListener("click", event => {
        if (event.target === dialog) {
            dialog.close();
        }
    });
    return () => dialog.showModal();
}

const mouseHint = [["Drag", "to turn"], ["Wheel", "to zoom"], ["Right drag", "to adjust"], ["Click", "to mark"], ["?", "for all"]];
const touchHint = [["Drag", "to turn"], ["Two fingers", "to zoom"], ["Three", "to adjust"], ["Tap", "to mark"]];
const seenKey = "volr-hint-seen";

/** Shows the hint until the picture has been touched once, here or on a former visit. */
export function showHint() {
    const hint = byId("hint");
    hint.hidden = localStorage.getItem(seenKey) !== null;
    const texts = matchMedia("(pointer: coarse)").matches ? touchHint : mouseHint;
    hint.replaceChildren(...texts.flatMap(([what, does]) => [html("span", {}, html("b", {}, what), ` ${does}`), " "]));
    byId("stage").addEventListener("pointerdown", () => {
        hint.hidden = true;
        localStorage.setItem(seenKey, "1");
    });
}
