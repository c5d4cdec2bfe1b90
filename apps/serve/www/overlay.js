// @ts-check
// What lies over a picture: orientation letters, scale bar, values in the corners, marks. All of it is drawn for the
// picture on the screen, not for the one that is asked for, so that it never runs ahead.
import { faceOf } from "./camera.js";
import { html, setAttributes, svg } from "./dom.js";
import { paneModes } from "./protocol.js";
import { store } from "./state.js";
import { clamp, length, scale as scaled } from "./vectors.js";
import { letters, open, positionText, project } from "./volume.js";

/** @typedef {import("./panes.js").Pane} Pane */
/** @typedef {import("./state.js").Mark} Mark */

/** 1, 2 or 5 times a power of ten, at most a quarter of the width. @param {number} widthMm */
export function scaleBarMm(widthMm) {
    const power = 10 ** Math.floor(Math.log10(widthMm / 4));
    return [5, 2, 1].map(n => n * power).find(mm => mm <= widthMm / 4) ?? power;
}

/** @param {number} mm */
const lengthText = mm => (mm >= 10 ? `${mm / 10} cm` : `${mm} mm`);

/** Whether black is read better than white on it. @param {string} colour #RRGGBB */
function isLight(colour) {
    const [r, g, b] = [1, 3, 5].map(i => (parseInt(colour.slice(i, i + 2), 16) / 255) ** 2.2);
    return 0.2126 * r + 0.7152 * g + 0.0722 * b > 0.18;
}

/** What is known of a mark, in few words. @param {Mark} mark */
export const amountOf = mark => {
    if (mark.kind === "distance" && mark.end !== undefined) {
        return `${Math.hypot(...mark.position.map((p, i) => p - (mark.end?.[i] ?? p))).toFixed(1)} mm`;
    }
    if (mark.kind === "vessel") {
        return `${mark.length?.toFixed(1)} mm`;
    }
    return mark.value === undefined ? "" : `${Math.round(mark.value)} ${open.volume?.unit ?? ""}`.trim();
};

/** @param {Mark["kind"]} kind @param {{x: number, y: number}} at */
const spot = (kind, at) => svg("g", { class: `spot ${kind}`, transform: `translate(${at.x} ${at.y})` },
    svg("circle", { r: kind === "vessel" ? 7 : 4 }), svg("path", { d: "M-2 0H2M0 -2V2" }));

/** What a letter of a mark's text takes at most, CSS pixels. */
const letterCss = 7.5;

// Text to the right of a place, or to its left where it would leave the picture.
/** @param {{x: number, y: number}} at @param {string} text @param {number} width of the picture */
function beside(at, text, width) {
    const isLeft = at.x + 10 + letterCss * text.length > width;
    return svg("text", { class: "mark-text", "text-anchor": isLeft ? "end" : "start", x: at.x + (isLeft ? -10 : 10), y: at.y - 8 }, text);
}

/** Text under a place, inside the picture. @param {{x: number, y: number}} at @param {string} text @param {number} width of the picture */
function below(at, text, width) {
    const half = Math.min(0.5 * width, 0.5 * letterCss * text.length);
    return svg("text", { class: "mark-text", "text-anchor": "middle", x: clamp(at.x, half, width - half), y: at.y + 24 }, text);
}

export class Overlay {
    /** @param {Pane} pane */
    constructor(pane) {
        this.pane = pane;
        this.drawing = svg("svg", { class: "drawing", role: "group", "aria-label": "Handles" });
        this.marks = svg("g", { "aria-hidden": "true" });
        this.handles = svg("g");
        this.cross = svg("path", { class: "cross", d: "M-14 0H-4M4 0H14M0 -14V-4M0 4V14", "aria-hidden": "true" });
        this.drawing.append(this.marks, this.handles, this.cross);
        this.edges = ["left", "right", "top", "bottom"].map(side => html("span", { class: `letter ${side}` }));
        this.kind = html("p", { class: "corner kind" });
        this.values = html("p", { class: "corner values" });
        this.barText = html("span");
        this.bar = html("div", { class: "bar" });
        this.scale = html("div", { class: "corner scale" }, this.barText, this.bar);
        this.legend = html("div", { class: "legend" }, ...this.edges, this.kind, this.values, this.scale);
        pane.element.append(this.drawing, this.legend);
        pane.element.addEventListener("picture", () => this.update());
        store.subscribe(() => this.update());
    }

    update() {
        const shown = this.pane.shown;
        this.legend.hidden = shown === null || !store.state.legend;
        this.drawing.toggleAttribute("hidden", shown === null);
        if (shown === null) {
            return;
        }
        const { right, down } = shown.geometry;
        [scaled(right, -1), right, scaled(down, -1), down].forEach((direction, i) => {
            this.edges[i].textContent = letters(direction);
        });
        this.#drawTexts();
        this.#drawScale(length(right));
        this.#drawMarks();
    }

    #drawTexts() {
        const { state } = store;
        const mode = paneModes(state)[this.pane.index];
        const shown = this.pane.shown;
        const face = faceOf(state.camera);
        const kinds = {
            mip: "MIP",
            slab: `Slab ${Math.round(state.slab.thickness * 10) / 10} mm`,
            render: state.preset ?? open.volume?.preset ?? "",
        };
        this.kind.textContent = [kinds[mode], face?.name].filter(Boolean).join("\n");
        const window = shown?.window ?? state.window;
        const adjusted = [
            state.shift === 0 ? "" : `shift ${Math.round(state.shift)}`,
            state.opacity === 1 ? "" : `opacity ${state.opacity.toFixed(2)}`,
        ];
        this.legend.classList.toggle("on-light", mode === "render" && isLight(state.background));
        this.values.textContent = mode !== "render" && window
            ? `C ${Math.round(window.centre)}  W ${Math.round(window.width)}` : adjusted.filter(Boolean).join("\n");
    }

    /** @param {number} mmPerPixel */
    #drawScale(mmPerPixel) {
        const mm = scaleBarMm(this.pane.width * mmPerPixel);
        this.barText.textContent = lengthText(mm);
        this.bar.style.width = `${(mm / mmPerPixel) * this.pane.scale}px`;
    }

    /** The place of a position on the pane, CSS pixels. @param {import("./vectors.js").Vec3} position */
    place(position) {
        const shown = this.pane.shown;
        if (shown === null) {
            return { x: -1000, y: -1000 };
        }
        const { x, y } = project(shown.geometry, position);
        return { x: (x + 0.5) * this.pane.scale, y: (y + 0.5) * this.pane.scale };
    }

    #drawMarks() {
        const { marks, firstEnd } = store.state;
        this.marks.replaceChildren(...(firstEnd === null ? [] : [spot("distance", this.place(firstEnd))]), ...marks.flatMap(mark => {
            const at = this.place(mark.position);
            const end = mark.end === undefined ? at : this.place(mark.end);
            const { clientWidth } = this.pane.element;
            const text = beside(end, `${mark.label}  ${amountOf(mark)}`, clientWidth);
            const line = svg("line", { class: "measure", x1: at.x, y1: at.y, x2: end.x, y2: end.y });
            if (mark.end !== undefined) {
                return [line, spot(mark.kind, at), spot(mark.kind, end), text];
            }
            // Where the newest one lies is what was asked last.
            return [spot(mark.kind, at), text, ...(mark === marks.at(-1) ? [below(at, positionText(mark.position), clientWidth)] : [])];
        }));
    }

    /** Puts the cross of keyboard picks somewhere, CSS pixels. @param {number} x @param {number} y */
    putCross(x, y) {
        setAttributes(this.cross, { transform: `translate(${x} ${y})` });
    }
}
