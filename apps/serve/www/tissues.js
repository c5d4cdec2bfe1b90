// @ts-check
// The panel's part for labelled tissues: whether each is seen, its colour, its opacity.
import { html } from "./dom.js";
import { onlyIf, section } from "./fields.js";
import { store } from "./state.js";
import { open } from "./volume.js";

/** @typedef {import("./state.js").Tissue} Tissue */
/** @typedef {import("./protocol.js").Volume} Volume */

/** As the server shows them before anybody changes anything. @param {Volume} volume @returns {Tissue[]} */
export const startTissues = volume =>
    volume.tissues.map(({ label, colour }) => ({ label, visible: true, colour, opacity: 1 }));

/** @param {number} label @param {Partial<Tissue>} changes @param {boolean} [moving] */
const change = (label, changes, moving = false) =>
    store.update({ tissues: store.state.tissues.map(t => (t.label === label ? { ...t, ...changes } : t)) }, { moving });

/** @param {number} label @param {string} name @param {string | null} colour that it starts with */
function row(label, name, colour) {
    const visible = html("input", { type: "checkbox", onchange: () => change(label, { visible: visible.checked }) });
    const look = html("input", {
        type: "color", "aria-label": `Colour of ${name}`,
        oninput: () => change(label, { colour: look.value }, true), onchange: () => store.settle(),
    });
    const own = html("button", {
        type: "button", title: `${name} with the colours of the preset`, "aria-label": `${name} with the colours of the preset`,
        onclick: () => change(label, { colour: now()?.colour === null ? colour ?? "#d08070" : null }),
    }, "preset");
    const opacity = html("input", {
        type: "range", min: 0, max: 1, step: 0.01, "aria-label": `Opacity of ${name}`,
        oninput: () => change(label, { opacity: opacity.valueAsNumber }, true), onchange: () => store.settle(),
    });
    const now = () => store.state.tissues.find(t => t.label === label);
    store.subscribe(() => {
        const tissue = now();
        if (tissue !== undefined) {
            visible.checked = tissue.visible;
            look.value = tissue.colour ?? "#808080";
            look.classList.toggle("unused", tissue.colour === null);
            own.setAttribute("aria-pressed", String(tissue.colour === null));
            opacity.value = String(tissue.opacity);
            opacity.style.setProperty("--filled", String(tissue.opacity));
        }
    });
    return html("li", { class: "tissue" }, html("label", { class: "toggle" }, visible, name), look, own, opacity);
}

export function tissueSection() {
    const list = html("ul", { class: "tissues" });
    let madeFor = "";
    store.subscribe(() => {
        const { volume } = open;
        if (volume !== null && madeFor !== volume.series) {
            madeFor = volume.series;
            list.replaceChildren(...volume.tissues.map(t => row(t.label, t.name || `Label ${t.label}`, t.colour)));
        }
    });
    return onlyIf(section("Tissues", true, list), () => (open.volume?.tissues.length ?? 0) > 0);
}
