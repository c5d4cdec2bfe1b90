// @ts-check
// A ball under the pointer: what is grabbed follows it; far outside the picture's middle it rolls.
import { cross, dot, length, normalised } from "./vectors.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */

// A sphere that goes over into a hyperbola, so that no pointer position is off the ball.
/** @param {number} x @param {number} y @param {number} radius @returns {Vec3} */
function onBall(x, y, radius) {
    const d = Math.hypot(x, y);
    const height = d < radius * Math.SQRT1_2 ? Math.sqrt(radius * radius - d * d) : (radius * radius) / (2 * d);
    return [x, y, -height];  // the third direction points into the picture
}

/**
 * The turn between two pointer positions, measured from the ball's middle: a unit axis as the viewer sees it (right,
 * down, into) and an angle in radians; null when there is none.
 * @param {number} x0 @param {number} y0 @param {number} x1 @param {number} y1 @param {number} radius
 * @returns {{axis: Vec3, angle: number} | null}
 */
export function turnBetween(x0, y0, x1, y1, radius) {
    const from = normalised(onBall(x0, y0, radius));
    const to = normalised(onBall(x1, y1, radius));
    const axis = cross(from, to);
    const sine = length(axis);
    return sine < 1e-6 ? null : { axis: normalised(axis), angle: Math.atan2(sine, dot(from, to)) };
}
