// @ts-check
// The building blocks of the panel: each shows a part of the state and changes it.
import { html } from "./dom.js";
import { store } from "./state.js";
import { clamp } from "./vectors.js";

/** @typedef {import("./state.js").State} State */

/**
 * A slider with a number beside it.
 * @param {object} what
 * @param {string} what.label
 * @param {string | (() => string)} [what.unit] may change with the volume
 * @param {() => [low: number, high: number]} what.range may change with the volume
 * @param {number} what.step
 * @param {(state: State) => number} what.get
 * @param {(value: number) => Partial<State>} what.set
 */
export function slider({ label, unit = "", range, step, get, set }) {
    const unitNow = typeof unit === "string" ? () => unit : unit;
    const bar = html("input", { type: "range", step });
    const box = html("input", { type: "number", step: "any" });
    const unitText = html("span", { class: "unit", "aria-hidden": "true" });
    let named = "";
    const name = () => {
        const full = [label, unitNow()].filter(Boolean).join(", ");
        if (full !== named) {
            named = full;
            unitText.textContent = unitNow();
            bar.setAttribute("aria-label", full);
            box.setAttribute("aria-label", `${full}, as a number`);
        }
    };
    bar.addEventListener("input", () => store.update(set(bar.valueAsNumber), { moving: true }));
    bar.addEventListener("change", () => store.settle());
    box.addEventListener("change", () => {
        const [low, high] = range();
        store.update(set(Number.isFinite(box.valueAsNumber) ? clamp(box.valueAsNumber, low, high) : get(store.state)));
    });
    const digits = Math.max(0, -Math.floor(Math.log10(step)));
    store.subscribe(() => {
        name();
        const [low, high] = range();
        bar.min = String(low);
        bar.max = String(high);
        const value = get(store.state);
        bar.value = String(value);
        bar.style.setProperty("--filled", String(clamp((value - low) / (high - low || 1), 0, 1)));
        if (document.activeElement !== box) {
            box.value = String(Number(value.toFixed(digits)));
        }
    });
    return html("div", { class: "field" }, html("span", { class: "name", "aria-hidden": "true" }, label),
        html("span", { class: "amount" }, box, unitText), bar);
}

/** @param {string} label @param {(state: State) => boolean} get @param {(on: boolean) => Partial<State>} set */
export function toggle(label, get, set) {
    const box = html("input", { type: "checkbox", onchange: () => store.update(set(box.checked)) });
    store.subscribe(() => {
        box.checked = get(store.state);
    });
    return html("label", { class: "toggle" }, box, label);
}

/**
 * Buttons of which one is pressed.
 * @param {string} name
 * @param {{value: string, label: string, title: string}[]} choices
 * @param {(state: State) => string} get @param {(value: string) => void} set
 */
export function choice(name, choices, get, set) {
    const buttons = choices.map(({ value, label, title }) =>
        html("button", { type: "button", title, "aria-label": title, "data-value": value, onclick: () => set(value) }, label));
    store.subscribe(() => {
        for (const button of buttons) {
            button.setAttribute("aria-pressed", String(button.dataset.value === get(store.state)));
        }
    });
    return html("div", { class: "choice", role: "group", "aria-label": name }, ...buttons);
}

/** @param {string} label @param {() => void} act @param {string} [title] */
export const button = (label, act, title) => html("button", { type: "button", onclick: act, title: title ?? "" }, label);

/** A part of the panel that folds. @param {string} title @param {boolean} open @param {(Node | string)[]} content */
export const section = (title, open, ...content) =>
    html("details", { open, class: "section" }, html("summary", {}, title), html("div", { class: "content" }, ...content));

/** Shows an element only while `wanted` says so. @param {HTMLElement} element @param {(state: State) => boolean} wanted */
export function onlyIf(element, wanted) {
    store.subscribe(() => {
        element.hidden = !wanted(store.state);
    });
    return element;
}
