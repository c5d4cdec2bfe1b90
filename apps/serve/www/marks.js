// @ts-check
// The panel's part for picks: what a click does, and the list of marks.
import { html } from "./dom.js";
import { button, section } from "./fields.js";
import { amountOf } from "./overlay.js";
import { store } from "./state.js";
import { open, positionText } from "./volume.js";

/** @typedef {import("./state.js").Mark} Mark */

/** What markups and tables call the ends of a mark. @param {Mark} mark */
export function pointsOf(mark) {
    const kind = mark.kind === "vessel" ? `vessel, ${mark.vesselClass}, ${amountOf(mark)} along the line of sight` : `${mark.kind} ${amountOf(mark)}`;
    return mark.end === undefined
        ? [{ label: mark.label, position: mark.position, description: kind }]
        : [{ label: `${mark.label} start`, position: mark.position, description: kind },
            { label: `${mark.label} end`, position: mark.end, description: kind }];
}

/** @param {Mark} mark @param {number} index */
function item(mark, index) {
    const rename = (/** @type {Event} */ event) => {
        const label = /** @type {HTMLInputElement} */ (event.target).value.trim().slice(0, 40) || mark.label;
        store.update({ marks: store.state.marks.map((m, i) => (i === index ? { ...m, label } : m)) });
    };
    const remove = () => store.update({ marks: store.state.marks.filter((_, i) => i !== index) });
    const kind = mark.kind === "vessel" ? `Vessel, ${mark.vesselClass}, ` : "";
    return html("li", { class: `mark ${mark.kind}` },
        html("input", { type: "text", value: mark.label, maxLength: 40, "aria-label": `Name of ${mark.label}`, onchange: rename }),
        html("span", { class: "amount" }, `${kind}${amountOf(mark)}`),
        html("button", { type: "button", class: "icon", title: `Remove ${mark.label}`, "aria-label": `Remove ${mark.label}`, onclick: remove }, "\u00d7"),
        html("span", { class: "quiet position" }, positionText(mark.position)));
}

/** @param {(kind: "markups" | "csv") => void} save */
export function markSection(save) {
    const list = html("ol", { class: "marks", "aria-label": "Marks" });
    const empty = html("p", { class: "quiet" }, "Click the picture to mark a point. Choose Vessel to find the middle of a vessel, Distance to measure.");
    const buttons = html("div", { class: "buttons" },
        button("Save .mrk.json", () => save("markups"), "Points that other viewers open"),
        button("Save CSV", () => save("csv"), "A table of the points"),
        button("Remove all", () => store.update({ marks: [] })));
    /** @type {Mark[] | null} */
    let shown = null;
    let unit = "";
    store.subscribe(() => {
        const { marks } = store.state;
        // Marks of a link are there before the volume that knows the unit of their values.
        if (shown !== marks || unit !== (open.volume?.unit ?? "")) {
            shown = marks;
            unit = open.volume?.unit ?? "";
            list.replaceChildren(...marks.map(item));
            empty.hidden = marks.length > 0;
            buttons.hidden = marks.length === 0;
        }
    });
    return section("Marks", true, empty, list, buttons);
}
