// @ts-check
// The whole state of the page as one value, and whoever wants to know when it changes.
import { startCamera } from "./camera.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */
/** @typedef {import("./camera.js").Camera} Camera */
/** @typedef {"mip" | "slab" | "render" | "both"} Mode */
/** @typedef {"point" | "vessel" | "distance"} Tool what a click does */
/** Keeps what lies beyond: normal . (p - middle of the volume) >= offset. @typedef {{normal: Vec3, offset: number}} Plane */
/** @typedef {{label: number, visible: boolean, colour: string | null, opacity: number}} Tissue */
/**
 * What a person marked: a point, the centre of a vessel, or a distance between two positions.
 * @typedef {object} Mark
 * @property {Tool} kind
 * @property {string} label
 * @property {Vec3} position
 * @property {Vec3} [end] of a distance
 * @property {number} [value] shown at a point
 * @property {string} [vesselClass]
 * @property {number} [length] of a vessel along the line of sight, mm
 */
/**
 * @typedef {object} State
 * @property {string | null} series
 * @property {Mode} mode
 * @property {"mip" | "slab"} projection the left picture when both are shown
 * @property {Camera} camera
 * @property {{centre: number, width: number} | null} window null: the server's choice
 * @property {{thickness: number, offset: number}} slab mm
 * @property {number | null} depthCue
 * @property {string | null} preset
 * @property {number} shift
 * @property {number} opacity
 * @property {boolean} lit
 * @property {{azimuth: number, elevation: number}} light degrees
 * @property {string} background
 * @property {[number, number, number, number, number, number]} box fractions of columns, rows, slices, from and to
 * @property {Plane[]} planes
 * @property {Tissue[]} tissues
 * @property {number | null} budgetMs for a moving picture; null: the server's own
 * @property {Mark[]} marks
 * @property {Tool} tool
 * @property {Vec3 | null} firstEnd of a distance that waits for its other end
 * @property {boolean} cutting whether the handles of box and planes are shown
 * @property {boolean} legend whether letters, scale bar and values are shown
 */

/** What a link carries and a new series starts with. */
export const startState = () =>
    /** @type {State} */ ({
        series: null,
        mode: "render",
        projection: "mip",
        camera: startCamera(),
        window: null,
        slab: { thickness: 20, offset: 0 },
        depthCue: null,
        preset: null,
        shift: 0,
        opacity: 1,
        lit: true,
        light: { azimuth: -25, elevation: 30 },
        background: "#000000",
        box: [0, 1, 0, 1, 0, 1],
        planes: [],
        tissues: [],
        budgetMs: null,
        marks: [],
        tool: "point",
        firstEnd: null,
        cutting: false,
        legend: true,
    });

/** Rests as long after the last change that was not the last of its kind. */
const settleMs = 200;

/** Holds the state; every change makes a new one. */
export class Store {
    state = startState();
    /** Whether more changes are expected at once, so that quick pictures are better than good ones. */
    moving = false;
    /** @type {Set<() => void>} */
    #listeners = new Set();
    #settling = 0;

    /** @param {() => void} listener called after each change, and now */
    subscribe(listener) {
        this.#listeners.add(listener);
        listener();
    }

    /**
     * @param {Partial<State>} changes
     * @param {{moving?: boolean}} [how] moving: one of many changes, as of a drag; settle() or a short while ends them
     */
    update(changes, { moving = false } = {}) {
        clearTimeout(this.#settling);
        this.state = { ...this.state, ...changes };
        this.moving = moving;
        if (moving) {
            this.#settling = window.setTimeout(() => this.settle(), settleMs);
        }
        this.#tell();
    }

    /** The changes have ended. */
    settle() {
        clearTimeout(this.#settling);
        if (this.moving) {
            this.moving = false;
            this.#tell();
        }
    }

    #tell() {
        for (const listener of this.#listeners) {
            listener();
        }
    }
}

export const store = new Store();
