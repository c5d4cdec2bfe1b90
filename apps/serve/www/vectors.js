// @ts-check
// Vectors of three numbers: patient positions and directions (LPS, mm), or what the viewer sees (right, down, into).

/** @typedef {[number, number, number]} Vec3 */

/** @param {Vec3} a @param {Vec3} b @returns {Vec3} */
export const add = (a, b) => [a[0] + b[0], a[1] + b[1], a[2] + b[2]];

/** @param {Vec3} a @param {Vec3} b @returns {Vec3} */
export const subtract = (a, b) => [a[0] - b[0], a[1] - b[1], a[2] - b[2]];

/** @param {Vec3} a @param {number} factor @returns {Vec3} */
export const scale = (a, factor) => [a[0] * factor, a[1] * factor, a[2] * factor];

/** @param {Vec3} a @param {Vec3} b */
export const dot = (a, b) => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];

/** @param {Vec3} a @param {Vec3} b @returns {Vec3} */
export const cross = (a, b) => [
    a[1] * b[2] - a[2] * b[1],
    a[2] * b[0] - a[0] * b[2],
    a[0] * b[1] - a[1] * b[0],
];

/** @param {Vec3} a */
export const length = a => Math.hypot(a[0], a[1], a[2]);

/** @param {Vec3} a @param {Vec3} b */
export const distance = (a, b) => length(subtract(a, b));

/** @param {Vec3} a @returns {Vec3} */
export const normalised = a => scale(a, 1 / (length(a) || 1));

/**
 * Turned about a unit axis by an angle in radians, right-handed.
 * @param {Vec3} v @param {Vec3} axis @param {number} angle @returns {Vec3}
 */
export function rotated(v, axis, angle) {
    const c = Math.cos(angle);
    const along = scale(axis, dot(axis, v) * (1 - c));
    return add(add(scale(v, c), scale(cross(axis, v), Math.sin(angle))), along);
}

/** @param {number} value @param {number} low @param {number} high */
export const clamp = (value, low, high) => Math.min(high, Math.max(low, value));
