// @ts-check
// The camera: unit vectors of the picture in the patient, zoom and pan. Cameras are values; each function gives a new one.
import { add, clamp, cross, dot, normalised, rotated, scale, subtract } from "./vectors.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */
/**
 * zoom 1 shows the whole volume; pan in picture widths and heights.
 * @typedef {{right: Vec3, down: Vec3, zoom: number, pan: [number, number]}} Camera
 */

/** @typedef {"A" | "P" | "L" | "R" | "S" | "I"} Face the face of the patient that looks at the viewer */

/** @type {{face: Face, name: string, right: Vec3, down: Vec3}[]} */
export const views = [
    { face: "A", name: "Anterior", right: [1, 0, 0], down: [0, 0, -1] },
    { face: "P", name: "Posterior", right: [-1, 0, 0], down: [0, 0, -1] },
    { face: "L", name: "Left", right: [0, 1, 0], down: [0, 0, -1] },
    { face: "R", name: "Right", right: [0, -1, 0], down: [0, 0, -1] },
    { face: "S", name: "Superior", right: [-1, 0, 0], down: [0, 1, 0] },
    { face: "I", name: "Inferior", right: [1, 0, 0], down: [0, 1, 0] },
];

/** @returns {Camera} */
export const startCamera = () => ({ right: views[0].right, down: views[0].down, zoom: 1, pan: [0, 0] });

/** @param {Camera} camera */
export const into = camera => cross(camera.right, camera.down);

/** @param {Camera} camera @param {Face} face @returns {Camera} */
export function lookAt(camera, face) {
    const view = views.find(v => v.face === face) ?? views[0];
    return { ...camera, right: view.right, down: view.down, pan: [0, 0] };
}

/** The face that looks straight at the viewer, or null. @param {Camera} camera */
export const faceOf = camera =>
    views.find(v => dot(v.right, camera.right) > 0.9999 && dot(v.down, camera.down) > 0.9999) ?? null;

/**
 * Turns what is seen about an axis that the viewer sees (right, down, into), by radians.
 * @param {Camera} camera @param {Vec3} axis @param {number} angle @returns {Camera}
 */
export function turned(camera, axis, angle) {
    const rows = [camera.right, camera.down, into(camera)];
    // Each of the picture's directions, turned back, is what it shows afterwards.
    const pick = (/** @type {Vec3} */ v) => add(add(scale(rows[0], v[0]), scale(rows[1], v[1])), scale(rows[2], v[2]));
    const right = normalised(pick(rotated([1, 0, 0], axis, -angle)));
    const down = pick(rotated([0, 1, 0], axis, -angle));
    return { ...camera, right, down: normalised(subtract(down, scale(right, dot(right, down)))) };
}

/**
 * Zooms so that the point at (x, y), in pixels of a picture of this size, stays where it is.
 * @param {Camera} camera @param {number} factor @param {number} x @param {number} y
 * @param {{width: number, height: number}} size @returns {Camera}
 */
export function zoomed(camera, factor, x, y, size) {
    const zoom = clamp(camera.zoom * factor, 0.1, 20);
    const ratio = zoom / camera.zoom;
    const shift = (/** @type {number} */ at, /** @type {number} */ pan, /** @type {number} */ edge) => {
        const middle = 0.5 * (edge - 1);
        return (at - (at - middle - pan * edge) * ratio - middle) / edge;
    };
    return { ...camera, zoom, pan: limited([shift(x, camera.pan[0], size.width), shift(y, camera.pan[1], size.height)], zoom) };
}

/**
 * Moves the content by pixels of a picture of this size.
 * @param {Camera} camera @param {number} dx @param {number} dy @param {{width: number, height: number}} size @returns {Camera}
 */
export const panned = (camera, dx, dy, size) => ({
    ...camera,
    pan: limited([camera.pan[0] + dx / size.width, camera.pan[1] + dy / size.height], camera.zoom),
});

// The volume must not get lost outside the picture.
/** @param {[number, number]} pan @param {number} zoom @returns {[number, number]} */
function limited(pan, zoom) {
    const reach = 0.5 + 0.5 * Math.max(1, zoom);
    return [clamp(pan[0], -reach, reach), clamp(pan[1], -reach, reach)];
}
