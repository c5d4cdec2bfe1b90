// @ts-check
// The panel's parts for how pictures look: presets, lighting, background; window and slab; the time for a picture.
import { html } from "./dom.js";
import { button, choice, onlyIf, section, slider, toggle } from "./fields.js";
import { store } from "./state.js";
import { open, windowOf } from "./volume.js";

/** @typedef {import("./state.js").State} State */

const hasProjection = (/** @type {State} */ state) => state.mode !== "render";
const hasRendering = (/** @type {State} */ state) => state.mode === "render" || state.mode === "both";
const hasSlab = (/** @type {State} */ state) => state.mode === "slab" || (state.mode === "both" && state.projection === "slab");

/** @returns {[number, number]} */
const range = () => open.volume?.range ?? [0, 1];
const breadth = () => range()[1] - range()[0];
const window = () => windowOf(store.state);
const unit = () => open.volume?.unit ?? "";

const retryMs = 1500;

/** Pictures of presets are drawn when there is time: asks again until one is there. @param {HTMLImageElement} image @param {string} url */
function loadPatiently(image, url) {
    image.dataset.url = url;
    image.onload = () => image.classList.add("there");
    image.onerror = () => setTimeout(() => {
        if (image.isConnected && image.dataset.url === url) {
            image.src = url;
        }
    }, retryMs);
    image.src = url;
}

/** @param {import("./protocol.js").Preset[]} presets @param {string} series */
const presetButtons = (presets, series) => html("div", { class: "presets" }, ...presets.map(preset => {
    const image = html("img", { alt: "", width: 96, height: 96, decoding: "async" });
    loadPatiently(image, `/api/presets/${encodeURIComponent(preset.name)}.png?series=${encodeURIComponent(series)}`);
    return html("button", {
        type: "button", "data-preset": preset.name, title: preset.description,
        "aria-pressed": preset.name === (store.state.preset ?? open.volume?.preset),
        onclick: () => store.update({ preset: preset.name, shift: 0, opacity: 1 }),
    }, image, html("span", {}, preset.name));
}));

/** The presets with the open series in each; made anew when another series is opened. */
export function presetMenu() {
    const menu = html("div", { role: "group", "aria-label": "Presets" });
    let drawnFor = "";
    store.subscribe(() => {
        const { volume, hello } = open;
        // Pictures of half a volume would mislead.
        if (volume === null || hello === null || !volume.complete) {
            return;
        }
        if (drawnFor !== volume.series) {
            drawnFor = volume.series;
            // Files may not say what made them; then the default preset does.
            const modality = hello.presets.find(p => p.name === volume.preset)?.modality;
            const suited = hello.presets.filter(p => p.modality === modality);
            const others = hello.presets.filter(p => !suited.includes(p));
            menu.replaceChildren(presetButtons(suited, volume.series));
            if (others.length > 0) {
                const more = html("details", { class: "more", open: suited.length === 0 }, html("summary", {}, "For other images"));
                // Their pictures cost the server time: only for whoever looks.
                more.addEventListener("toggle", () => more.append(presetButtons(others, volume.series)), { once: true });
                menu.append(more);
            }
        }
        const chosen = store.state.preset ?? volume.preset;
        for (const item of /** @type {NodeListOf<HTMLElement>} */ (menu.querySelectorAll("button"))) {
            item.setAttribute("aria-pressed", String(item.dataset.preset === chosen));
        }
    });
    return menu;
}

export function renderingSection() {
    const shift = slider({
        label: "Shift", unit, step: 1, range: () => [-Math.min(1000, breadth() / 2), Math.min(1000, breadth() / 2)],
        get: s => s.shift, set: value => ({ shift: value }),
    });
    const opacity = slider({ label: "Opacity", step: 0.01, range: () => [0, 4], get: s => s.opacity, set: value => ({ opacity: value }) });
    const azimuth = slider({
        label: "Light from the side", unit: "deg", step: 1, range: () => [-90, 90],
        get: s => s.light.azimuth, set: value => ({ light: { ...store.state.light, azimuth: value } }),
    });
    const elevation = slider({
        label: "Light from above", unit: "deg", step: 1, range: () => [-90, 90],
        get: s => s.light.elevation, set: value => ({ light: { ...store.state.light, elevation: value } }),
    });
    const background = html("input", {
        type: "color", oninput: () => store.update({ background: background.value }, { moving: true }), onchange: () => store.settle(),
    });
    store.subscribe(() => {
        background.value = store.state.background;
    });
    return onlyIf(section("Look", true, presetMenu(), shift, opacity,
        toggle("Lighting", s => s.lit, lit => ({ lit })), onlyIf(html("div", {}, azimuth, elevation), s => s.lit),
        html("label", { class: "row" }, "Background", background)), hasRendering);
}

export function windowSection() {
    const centre = slider({
        label: "Centre", unit, step: 1, range, get: () => window().centre, set: value => ({ window: { ...window(), centre: value } }),
    });
    const width = slider({
        label: "Width", unit, step: 1, range: () => [1, breadth()], get: () => window().width, set: value => ({ window: { ...window(), width: value } }),
    });
    const cue = slider({
        label: "Darker with depth", unit: "%", step: 1, range: () => [0, 100],
        get: s => 100 * (1 - (s.depthCue ?? 1)), set: value => ({ depthCue: value === 0 ? null : 1 - value / 100 }),
    });
    return onlyIf(section("Window", true, centre, width, cue,
        button("Automatic window", () => store.update({ window: null }))), hasProjection);
}

export function slabSection() {
    const left = choice("Left picture", [
        { value: "mip", label: "MIP", title: "Left picture: MIP" },
        { value: "slab", label: "Slab", title: "Left picture: slab" },
    ], s => s.projection, value => store.update({ projection: value === "slab" ? "slab" : "mip" }));
    const depth = () => Math.round(open.volume?.diameter ?? 100);
    const thickness = slider({
        label: "Thickness", unit: "mm", step: 0.5, range: () => [0.5, Math.min(200, depth())],
        get: s => s.slab.thickness, set: value => ({ slab: { ...store.state.slab, thickness: value } }),
    });
    const offset = slider({
        label: "Position", unit: "mm", step: 0.5, range: () => [-depth() / 2, depth() / 2],
        get: s => s.slab.offset, set: value => ({ slab: { ...store.state.slab, offset: value } }),
    });
    const sliders = onlyIf(html("div", {}, thickness, offset), hasSlab);
    return onlyIf(section("Slab", true, onlyIf(left, s => s.mode === "both"), sliders), s => s.mode === "slab" || s.mode === "both");
}

export function speedSection() {
    const served = () => open.hello?.budgetMs ?? 33;
    const budget = slider({
        label: "Time for a picture while it moves", unit: "ms", step: 1, range: () => [8, Math.max(200, served())],
        get: s => s.budgetMs ?? served(), set: value => ({ budgetMs: value }),
    });
    const rate = html("p", { class: "quiet", id: "rate" }, "Turn the picture to see how fast it is drawn.");
    return {
        element: section("Speed", false, budget, rate),
        /** @param {{framesPerSecond: number, drawMs: number, clients: number}} measured */
        show(measured) {
            const others = measured.clients > 1 ? `, ${measured.clients} pages share the server` : "";
            rate.textContent = `${measured.framesPerSecond.toFixed(0)} pictures a second, ${measured.drawMs.toFixed(0)} ms to draw one${others}`;
        },
    };
}
