// @ts-check
// The open volume: where it lies in the patient, and how directions are called there.
import { add, dot, scale, subtract } from "./vectors.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */
/** @typedef {import("./protocol.js").Volume} Volume */
/** @typedef {import("./protocol.js").Geometry} Geometry */

/** What is open now; `volume` is null while nothing is. */
export const open = {
    /** @type {Volume | null} */
    volume: null,
    /** @type {import("./protocol.js").Window | null} of the projection on the screen while the server chooses */
    window: null,
    /** @type {import("./protocol.js").Hello | null} */
    hello: null,
};

/** The window that projections are shown with. @param {import("./state.js").State} state */
export const windowOf = state => state.window ?? open.window ?? open.volume?.window ?? { centre: 0, width: 1 };

/** The position of fractions of columns, rows and slices. @param {Volume} volume @param {Vec3} fractions @returns {Vec3} */
export function positionAt(volume, fractions) {
    const m = volume.indexToPatient;
    const index = fractions.map((f, i) => f * volume.dims[i] - 0.5);
    const row = (/** @type {number} */ r) => m[4 * r] * index[0] + m[4 * r + 1] * index[1] + m[4 * r + 2] * index[2] + m[4 * r + 3];
    return [row(0), row(1), row(2)];
}

/** From the first to the last corner along columns, rows or slices, mm. @param {Volume} volume @param {number} axis @returns {Vec3} */
export function axisVector(volume, axis) {
    const m = volume.indexToPatient;
    return [m[axis] * volume.dims[axis], m[4 + axis] * volume.dims[axis], m[8 + axis] * volume.dims[axis]];
}

/**
 * The letters of a patient direction, strongest first: R L, A P, S I; axes that hardly take part are left out.
 * @param {Vec3} direction
 */
export function letters(direction) {
    const size = Math.hypot(...direction) || 1;
    return direction
        .map((part, i) => ({ share: Math.abs(part) / size, letter: "RLAPIS"[2 * i + (part > 0 ? 1 : 0)] }))
        .filter(({ share }) => share > 0.3)
        .sort((a, b) => b.share - a.share)
        .map(({ letter }) => letter)
        .join("");
}

/** A position in words a physician reads. @param {Vec3} position */
export const positionText = position =>
    position.map((part, i) => `${"RLAPIS"[2 * i + (part > 0 ? 1 : 0)]}\u00a0${Math.abs(part).toFixed(1)}`).join("  ") + "\u00a0mm";

/**
 * Where a picture shows a position: its pixel, and how far in front of the volume's middle, mm.
 * @param {Geometry} geometry @param {Vec3} position
 */
export function project(geometry, position) {
    const from = subtract(position, geometry.origin);
    return {
        x: dot(from, geometry.right) / dot(geometry.right, geometry.right),
        y: dot(from, geometry.down) / dot(geometry.down, geometry.down),
        front: dot(from, geometry.towardViewer),
    };
}

/** The position that a pixel shows on the plane through the volume's middle. @param {Geometry} geometry @param {number} x @param {number} y @returns {Vec3} */
export const positionOf = (geometry, x, y) => add(geometry.origin, add(scale(geometry.right, x), scale(geometry.down, y)));
