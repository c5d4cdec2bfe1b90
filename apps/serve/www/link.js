// @ts-check
// The state as the part of a link after '#', and back. What comes from a link is not trusted.
import { startState } from "./state.js";
import { clamp, cross, dot, length, normalised, subtract, scale } from "./vectors.js";

/** @typedef {import("./state.js").State} State */
/** @typedef {import("./vectors.js").Vec3} Vec3 */

const prefix = "view=";
/** Most marks that a page keeps; more would not fit a message. */
export const mostMarks = 200;
/** Most planes that cut. */
export const mostPlanes = 4;

// Any other part of the state is the page's own.
/** @type {(keyof State)[]} */
const carried = [
    "series", "mode", "projection", "camera", "window", "slab", "depthCue", "preset", "shift", "opacity", "lit", "light",
    "background", "box", "planes", "tissues", "budgetMs", "marks",
];

/** The state without what stands at its default. @param {State} state @returns {string} */
export function linkOf(state) {
    /** @type {Record<string, unknown>} */
    const start = startState();
    const different = carried.filter(key => JSON.stringify(state[key]) !== JSON.stringify(start[key]));
    const text = JSON.stringify(Object.fromEntries(different.map(key => [key, state[key]])), (_, value) =>
        typeof value === "number" ? Math.round(value * 1e6) / 1e6 : value);
    const bytes = new TextEncoder().encode(text);
    const base64 = btoa(Array.from(bytes, byte => String.fromCharCode(byte)).join(""));
    return prefix + base64.replaceAll("+", "-").replaceAll("/", "_").replace(/=+$/, "");
}

/** The state that a link carries, or null when it carries none. @param {string} fragment @returns {State | null} */
export function stateOf(fragment) {
    const text = fragment.replace(/^#/, "");
    if (!text.startsWith(prefix) || text.length > 100_000) {
        return null;
    }
    try {
        const base64 = text.slice(prefix.length).replaceAll("-", "+").replaceAll("_", "/");
        const bytes = Uint8Array.from(atob(base64), character => character.charCodeAt(0));
        return checked(JSON.parse(new TextDecoder().decode(bytes)));
    } catch {
        return null;
    }
}

/** @param {any} given @returns {State} */
function checked(given) {
    const start = startState();
    const one = (/** @type {unknown} */ value, /** @type {readonly string[]} */ names, /** @type {string} */ otherwise) =>
        typeof value === "string" && names.includes(value) ? value : otherwise;
    return {
        ...start,
        series: name(given.series),
        mode: /** @type {State["mode"]} */ (one(given.mode, ["mip", "slab", "render", "both"], start.mode)),
        projection: given.projection === "slab" ? "slab" : "mip",
        camera: camera(given.camera) ?? start.camera,
        window: finite(given.window?.centre) && given.window?.width > 0 && finite(given.window.width)
            ? { centre: given.window.centre, width: given.window.width } : null,
        slab: { thickness: number(given.slab?.thickness, 0.1, 5000, 20), offset: number(given.slab?.offset, -5000, 5000, 0) },
        depthCue: finite(given.depthCue) ? clamp(given.depthCue, 0, 1) : null,
        preset: name(given.preset),
        shift: number(given.shift, -1e5, 1e5, 0),
        opacity: number(given.opacity, 0, 10, 1),
        lit: given.lit !== false,
        light: { azimuth: number(given.light?.azimuth, -180, 180, -25), elevation: number(given.light?.elevation, -90, 90, 30) },
        background: colour(given.background) ?? start.background,
        box: box(given.box) ?? start.box,
        planes: list(given.planes, mostPlanes, plane),
        tissues: list(given.tissues, 255, tissue),
        budgetMs: finite(given.budgetMs) ? clamp(given.budgetMs, 8, 500) : null,
        marks: list(given.marks, mostMarks, mark),
    };
}

/** @param {unknown} value @returns {value is number} */
const finite = value => typeof value === "number" && Number.isFinite(value);

/** @param {unknown} value @param {number} low @param {number} high @param {number} otherwise */
const number = (value, low, high, otherwise) => (finite(value) ? clamp(value, low, high) : otherwise);

/** @param {unknown} value */
const name = value => (typeof value === "string" && value.length > 0 && value.length <= 100 ? value : null);

/** @param {unknown} value */
const colour = value => (typeof value === "string" && /^#[0-9a-fA-F]{6}$/.test(value) ? value : null);

/** @param {any} value @returns {Vec3 | null} */
const vector = value => (Array.isArray(value) && value.length === 3 && value.every(finite) ? [value[0], value[1], value[2]] : null);

/** @template T @param {unknown} values @param {number} most @param {(value: any) => T | null} check @returns {T[]} */
const list = (values, most, check) =>
    (Array.isArray(values) ? values.slice(0, most) : []).flatMap(value => check(value ?? {}) ?? []);

/** @param {any} given @returns {State["camera"] | null} */
function camera(given) {
    const right = vector(given?.right);
    const down = vector(given?.down);
    if (right === null || down === null || length(cross(right, down)) < 1e-3) {
        return null;
    }
    const r = normalised(right);
    const pan = Array.isArray(given.pan) ? given.pan : [];
    return {
        right: r,
        down: normalised(subtract(down, scale(r, dot(r, down)))),
        zoom: number(given.zoom, 0.1, 20, 1),
        pan: [number(pan[0], -10, 10, 0), number(pan[1], -10, 10, 0)],
    };
}

/** @param {any} given @returns {State["box"] | null} */
function box(given) {
    const good = Array.isArray(given) && given.length === 6 && given.every(finite) &&
        [0, 2, 4].every(i => given[i] >= 0 && given[i] < given[i + 1] && given[i + 1] <= 1);
    return good ? [given[0], given[1], given[2], given[3], given[4], given[5]] : null;
}

/** @param {any} given @returns {State["planes"][0] | null} */
function plane(given) {
    const normal = vector(given.normal);
    return normal !== null && length(normal) > 1e-3 && finite(given.offset) ? { normal: normalised(normal), offset: given.offset } : null;
}

/** @param {any} given @returns {State["tissues"][0] | null} */
const tissue = given => (Number.isInteger(given.label)
    ? { label: given.label, visible: given.visible !== false, colour: colour(given.colour), opacity: number(given.opacity, 0, 1, 1) }
    : null);

/** @param {any} given @returns {State["marks"][0] | null} */
function mark(given) {
    const position = vector(given.position);
    const end = vector(given.end);
    if (position === null || (given.kind === "distance" && end === null)) {
        return null;
    }
    return {
        kind: given.kind === "vessel" || given.kind === "distance" ? given.kind : "point",
        label: (name(given.label) ?? "").slice(0, 40),
        position,
        ...(end === null ? {} : { end }),
        ...(finite(given.value) ? { value: given.value } : {}),
        ...(name(given.vesselClass) === null ? {} : { vesselClass: String(given.vesselClass).slice(0, 20) }),
        ...(finite(given.length) ? { length: given.length } : {}),
    };
}
