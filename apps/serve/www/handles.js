// @ts-check
// Handles in the picture: six on the faces of the box, two for each plane (one moves it, one tilts it).
import { into, turned } from "./camera.js";
import { mostPlanes } from "./link.js";
import { setAttributes, svg } from "./dom.js";
import { store } from "./state.js";
import { turnBetween } from "./trackball.js";
import { add, clamp, cross, dot, normalised, rotated, scale } from "./vectors.js";
import { axisVector, letters, open, positionAt } from "./volume.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */
/** @typedef {import("./overlay.js").Overlay} Overlay */
/** @typedef {import("./protocol.js").Volume} Volume */
/** @typedef {import("./state.js").State} State */
/** @typedef {State["box"]} Box */

export const faceNames = { L: "left", R: "right", A: "front", P: "back", S: "head", I: "feet" };

/** What the box leaves between two faces at least, as a fraction. */
const leastDepth = 0.01;

/** The name of a face of the box, 0 to 5: columns, rows, slices, from and to. @param {Volume} volume @param {number} face */
export function faceName(volume, face) {
    const outward = scale(axisVector(volume, face >> 1), face % 2 === 0 ? -1 : 1);
    const letter = /** @type {keyof typeof faceNames} */ (letters(outward)[0]);
    return faceNames[letter];
}

/** The box with one face moved. @param {Box} box @param {number} face @param {number} to @returns {Box} */
export function withFace(box, face, to) {
    const moved = /** @type {Box} */ ([...box]);
    moved[face] = face % 2 === 0 ? clamp(to, 0, box[face + 1] - leastDepth) : clamp(to, box[face - 1] + leastDepth, 1);
    return moved;
}

/** A new plane through the middle that takes away the half towards the viewer. */
export function addPlane() {
    const { planes, camera } = store.state;
    if (planes.length < mostPlanes) {
        store.update({ planes: [...planes, { normal: into(camera), offset: 0 }], cutting: true });
    }
}

/** @param {number} index @param {Partial<State["planes"][0]>} changes @param {boolean} [moving] */
export function changePlane(index, changes, moving = false) {
    store.update({ planes: store.state.planes.map((p, i) => (i === index ? { ...p, ...changes } : p)) }, { moving });
}

/** Handles of one pane. They are elements that last, so that the one that is dragged keeps the pointer. */
export class Handles {
    /** @type {{box: SVGPathElement, faces: SVGElement[], planes: {group: SVGElement, disc: SVGElement, stem: SVGElement, move: SVGElement, tilt: SVGElement}[]} | null} */
    #parts = null;

    /** @param {Overlay} overlay */
    constructor(overlay) {
        this.overlay = overlay;
        overlay.pane.element.addEventListener("picture", () => this.update());
        store.subscribe(() => this.update());
    }

    update() {
        const { state } = store;
        const { handles, pane } = this.overlay;
        const { volume } = open;
        const wanted = state.cutting && volume !== null && pane.shown !== null;
        handles.toggleAttribute("hidden", !wanted);
        if (!wanted || volume === null) {
            return;
        }
        this.#parts ??= this.#make();
        this.#drawBox(volume, state.box);
        this.#parts.planes.forEach((_, i) => this.#drawPlane(volume, i));
    }

    #make() {
        const { handles } = this.overlay;
        const box = svg("path", { class: "box" });
        const faces = [0, 1, 2, 3, 4, 5].map(face => this.#handle("face", "Face of the box", (dx, dy) => this.#dragFace(face, dx, dy)));
        const planes = Array.from({ length: mostPlanes }, (_, i) => {
            const disc = svg("path", { class: "disc" });
            const stem = svg("line", { class: "stem" });
            const move = this.#handle("move", `Plane ${i + 1}: move`, (dx, dy) => this.#movePlane(i, dx, dy));
            const tilt = this.#handle("tilt", `Plane ${i + 1}: tilt`, (dx, dy, last) => this.#tiltPlane(i, dx, dy, last));
            return { group: svg("g", {}, disc, stem, move, tilt), disc, stem, move, tilt };
        });
        handles.append(box, ...faces, ...planes.map(p => p.group));
        return { box, faces, planes };
    }

    /**
     * A dot that is dragged, or moved by arrow keys when it has the focus.
     * @param {string} kind @param {string} label
     * @param {(dx: number, dy: number, last: {x: number, y: number}) => void} drag CSS pixels
     */
    #handle(kind, label, drag) {
        const handle = svg("g", { class: `handle ${kind}`, tabindex: 0, role: "button", "aria-roledescription": "handle", "aria-label": label },
            svg("circle", { class: "reach", r: 16 }), svg("circle", { r: 6 }));
        /** @type {{x: number, y: number} | null} */
        let last = null;
        handle.addEventListener("pointerdown", event => {
            event.stopPropagation();
            handle.setPointerCapture(event.pointerId);
            last = { x: event.clientX, y: event.clientY };
        });
        handle.addEventListener("pointermove", event => {
            if (last !== null) {
                drag(event.clientX - last.x, event.clientY - last.y, last);
                last = { x: event.clientX, y: event.clientY };
            }
        });
        for (const end of /** @type {const} */ (["pointerup", "pointercancel"])) {
            handle.addEventListener(end, () => {
                last = null;
                store.settle();
            });
        }
        handle.addEventListener("keydown", event => {
            const step = event.shiftKey ? 20 : 4;
            const [dx, dy] = { ArrowLeft: [-step, 0], ArrowRight: [step, 0], ArrowUp: [0, -step], ArrowDown: [0, step] }[event.key] ?? [0, 0];
            if (dx !== 0 || dy !== 0) {
                event.preventDefault();
                const bounds = handle.getBoundingClientRect();
                drag(dx, dy, { x: bounds.x + bounds.width / 2, y: bounds.y + bounds.height / 2 });
            }
        });
        return handle;
    }

    /** @param {Volume} volume @param {Box} box */
    #drawBox(volume, box) {
        if (this.#parts === null) {
            return;
        }
        const corner = (/** @type {number} */ c) => {
            const { x, y } = this.overlay.place(positionAt(volume, [box[c & 1], box[2 + (c >> 1 & 1)], box[4 + (c >> 2)]]));
            return `${x.toFixed(1)} ${y.toFixed(1)}`;
        };
        let path = "";
        for (let c = 0; c < 8; ++c) {
            for (const bit of [1, 2, 4]) {
                path += (c & bit) === 0 ? `M${corner(c)}L${corner(c | bit)}` : "";
            }
        }
        this.#parts.box.setAttribute("d", path);
        this.#parts.faces.forEach((handle, face) => {
            const middle = /** @type {Vec3} */ ([0, 2, 4].map(i => 0.5 * (box[i] + box[i + 1])));
            middle[face >> 1] = box[face];
            const { x, y } = this.overlay.place(positionAt(volume, middle));
            // A face that looks at the viewer has no way to go on the screen.
            handle.toggleAttribute("hidden", this.#onScreen(axisVector(volume, face >> 1)).length < 0.2);
            setAttributes(handle, { transform: `translate(${x} ${y})`, "aria-label": `Face of the box: ${faceName(volume, face)}` });
        });
    }

    /** A vector of the patient on the screen, CSS pixels; `length` as a share of what it would be seen from the side. @param {Vec3} vector */
    #onScreen(vector) {
        const { camera } = store.state;
        const pixels = this.#cssPerMm();
        const x = dot(vector, camera.right) * pixels;
        const y = dot(vector, camera.down) * pixels;
        return { x, y, length: Math.hypot(x, y) / (Math.hypot(...vector) * pixels) };
    }

    #cssPerMm() {
        const { pane } = this.overlay;
        const step = pane.shown?.geometry.right ?? [1, 0, 0];
        return pane.scale / Math.hypot(...step);
    }

    /** @param {number} face @param {number} dx @param {number} dy */
    #dragFace(face, dx, dy) {
        const { volume } = open;
        if (volume !== null) {
            const axis = this.#onScreen(axisVector(volume, face >> 1));
            const by = (dx * axis.x + dy * axis.y) / (axis.x * axis.x + axis.y * axis.y || 1);
            store.update({ box: withFace(store.state.box, face, store.state.box[face] + by) }, { moving: true });
        }
    }

    /** @param {Volume} volume @param {number} index */
    #drawPlane(volume, index) {
        const plane = store.state.planes[index];
        const parts = this.#parts?.planes[index];
        parts?.group.toggleAttribute("hidden", plane === undefined);
        if (plane === undefined || parts === undefined) {
            return;
        }
        const middle = add(volume.middle, scale(plane.normal, plane.offset));
        const radius = this.#discMm();
        const across = normalised(cross(plane.normal, Math.abs(plane.normal[2]) < 0.9 ? [0, 0, 1] : [1, 0, 0]));
        const points = Array.from({ length: 48 }, (_, i) => {
            const p = this.overlay.place(add(middle, scale(rotated(across, plane.normal, (i * Math.PI) / 24), radius)));
            return `${p.x.toFixed(1)} ${p.y.toFixed(1)}`;
        });
        const from = this.overlay.place(middle);
        const tip = this.overlay.place(add(middle, scale(plane.normal, -radius)));
        parts.disc.setAttribute("d", `M${points.join("L")}Z`);
        setAttributes(parts.stem, { x1: from.x, y1: from.y, x2: tip.x, y2: tip.y });
        // Where the stem points at the viewer its end covers the middle: the other handle makes room.
        const isCovered = Math.hypot(tip.x - from.x, tip.y - from.y) < 24;
        const below = isCovered ? radius * this.#cssPerMm() : 0;
        setAttributes(parts.move, { transform: `translate(${from.x} ${from.y + below})` });
        setAttributes(parts.tilt, { transform: `translate(${tip.x} ${tip.y})` });
    }

    // The disc stands for an endless plane; its size on the screen is the same at every zoom.
    #discMm() {
        const { pane } = this.overlay;
        return (0.22 * Math.min(pane.width, pane.height) * pane.scale) / this.#cssPerMm();
    }

    /** @param {number} index @param {number} dx @param {number} dy */
    #movePlane(index, dx, dy) {
        const { volume } = open;
        const plane = store.state.planes[index];
        if (volume !== null && plane !== undefined) {
            const normal = this.#onScreen(plane.normal);
            // A plane that faces the viewer goes into the picture as the pointer goes up.
            const facing = normal.length < 0.3;
            const sign = dot(plane.normal, into(store.state.camera)) < 0 ? -1 : 1;
            const by = facing ? (-dy * sign) / this.#cssPerMm() : (dx * normal.x + dy * normal.y) / (normal.x ** 2 + normal.y ** 2);
            const reach = 0.5 * volume.diameter;
            changePlane(index, { offset: clamp(plane.offset + by, -reach, reach) }, true);
        }
    }

    /** @param {number} index @param {number} dx @param {number} dy @param {{x: number, y: number}} last client position */
    #tiltPlane(index, dx, dy, last) {
        const { volume } = open;
        const plane = store.state.planes[index];
        if (volume === null || plane === undefined) {
            return;
        }
        const bounds = this.overlay.pane.element.getBoundingClientRect();
        const middle = this.overlay.place(add(volume.middle, scale(plane.normal, plane.offset)));
        const x = last.x - bounds.x - middle.x;
        const y = last.y - bounds.y - middle.y;
        const by = turnBetween(x, y, x + dx, y + dy, this.#discMm() * this.#cssPerMm());
        if (by !== null) {
            // Turning the plane is turning the camera the other way.
            const { camera } = store.state;
            const turnedCamera = turned(camera, by.axis, -by.angle);
            const seen = [camera.right, camera.down, into(camera)].map(axis => dot(plane.normal, axis));
            const axes = [turnedCamera.right, turnedCamera.down, into(turnedCamera)];
            changePlane(index, { normal: normalised(axes.reduce((sum, axis, i) => add(sum, scale(axis, seen[i])), /** @type {Vec3} */ ([0, 0, 0]))) }, true);
        }
    }
}
