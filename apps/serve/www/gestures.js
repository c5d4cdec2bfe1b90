// @ts-check
// Mouse and touch on a pane. Left or one finger turns, middle, Shift or two fingers pan, right or three fingers adjust,
// wheel or spreading fingers zoom; a press that does not move is a pick.
import { panned, turned, zoomed } from "./camera.js";
import { paneModes } from "./protocol.js";
import { store } from "./state.js";
import { turnBetween } from "./trackball.js";
import { clamp } from "./vectors.js";
import { open, windowOf } from "./volume.js";

/** @typedef {import("./panes.js").Pane} Pane */
/** @typedef {{x: number, y: number}} Point pixels of the pane's picture */
/** @typedef {"turn" | "pan" | "adjust"} Gesture */

/** A press may tremble as far, CSS pixels. */
const trembleCss = 4;
const longestTapMs = 600;
/** A second press as soon as this, at the same place, is half of a double click and picks nothing more. */
const doubleMs = 400;

/** @param {Pane} pane @param {Point} from @param {Point} to */
export function turn(pane, from, to) {
    const middle = { x: 0.5 * (pane.width - 1), y: 0.5 * (pane.height - 1) };
    const radius = 0.5 * Math.min(pane.width, pane.height);
    const by = turnBetween(from.x - middle.x, from.y - middle.y, to.x - middle.x, to.y - middle.y, radius);
    if (by !== null) {
        // Twice the angle of the ball: a drag across the picture is a whole turn.
        store.update({ camera: turned(store.state.camera, by.axis, 2 * by.angle) }, { moving: true });
    }
}

/** Window of a projection: right is wider, down is darker. Look of a rendering: right is denser, down is towards denser tissue. */
/** @param {Pane} pane @param {number} dx @param {number} dy CSS pixels */
export function adjust(pane, dx, dy) {
    const { state } = store;
    const [low, high] = open.volume?.range ?? [0, 1];
    if (paneModes(state)[pane.index] === "render") {
        const step = Math.min(high - low, 4000) / 2000;
        store.update({
            shift: clamp(state.shift + dy * step, low - high, high - low),
            opacity: clamp(Math.max(state.opacity, 0.02) * Math.exp(dx / 200), 0.02, 10),
        }, { moving: true });
    } else {
        const window = windowOf(state);
        const step = Math.max(window.width, (high - low) / 200) / 300;
        store.update({
            window: {
                centre: clamp(window.centre + dy * step, low, high),
                width: clamp(window.width + dx * step, (high - low) / 1000, 2 * (high - low)),
            },
        }, { moving: true });
    }
}

/** @param {Pane} pane @param {number} factor @param {Point} [at] */
export function zoom(pane, factor, at = { x: 0.5 * (pane.width - 1), y: 0.5 * (pane.height - 1) }) {
    store.update({ camera: zoomed(store.state.camera, factor, at.x, at.y, pane) }, { moving: true });
}

/** @param {Pane} pane @param {number} dx @param {number} dy pixels of the picture */
export function pan(pane, dx, dy) {
    store.update({ camera: panned(store.state.camera, dx, dy, pane) }, { moving: true });
}

/** @param {PointerEvent} event @returns {Gesture} */
const gestureOf = event => (event.button === 2 ? "adjust" : event.button === 1 || event.shiftKey ? "pan" : "turn");

/** @param {PointerEvent} a @param {PointerEvent} b */
const isNear = (a, b) => Math.hypot(a.clientX - b.clientX, a.clientY - b.clientY) < trembleCss;

/**
 * @param {Pane} pane
 * @param {(at: Point, vessel: boolean) => void} pick
 */
export function listen(pane, pick) {
    const { element } = pane;
    /** @type {Map<number, PointerEvent>} where each finger was last */
    const pointers = new Map();
    /** @type {Gesture} */
    let gesture = "turn";
    /** @type {PointerEvent | null} the press, as long as it may be a pick */
    let press = null;
    /** @type {PointerEvent | null} the press that picked last */
    let picked = null;

    element.addEventListener("pointerdown", event => {
        // The middle button would scroll; the picture has the focus without a ring around it.
        event.preventDefault();
        element.focus({ preventScroll: true });
        element.setPointerCapture(event.pointerId);
        pointers.set(event.pointerId, event);
        gesture = event.pointerType === "touch" && pointers.size > 1 ? (pointers.size > 2 ? "adjust" : "pan") : gestureOf(event);
        press = pointers.size === 1 && event.button === 0 && !event.shiftKey ? event : null;
    });

    element.addEventListener("pointermove", event => {
        const last = pointers.get(event.pointerId);
        if (last === undefined) {
            return;
        }
        if (press !== null && isNear(event, press)) {
            return;
        }
        press = null;
        if (event.pointerType === "touch" && pointers.size === 2) {
            spread(pane, pointers, event);
        } else if (gesture === "turn") {
            turn(pane, pane.pixelAt(last), pane.pixelAt(event));
        } else if (gesture === "pan") {
            pan(pane, (event.clientX - last.clientX) / pane.scale, (event.clientY - last.clientY) / pane.scale);
        } else if (pointers.size === 1 || event.pointerId === [...pointers.keys()][0]) {
            adjust(pane, event.clientX - last.clientX, event.clientY - last.clientY);
        }
        pointers.set(event.pointerId, event);
    });

    const release = (/** @type {PointerEvent} */ event) => {
        if (!pointers.delete(event.pointerId)) {
            return;
        }
        if (press !== null && event.type === "pointerup" && event.timeStamp - press.timeStamp < longestTapMs) {
            const isSecond = picked !== null && press.timeStamp - picked.timeStamp < doubleMs && isNear(press, picked);
            if (!isSecond) {
                picked = press;
                pick(pane.pixelAt(press), event.altKey);
            }
        }
        press = null;
        if (pointers.size === 0) {
            store.settle();
        } else if (event.pointerType === "touch") {
            gesture = pointers.size === 1 ? "turn" : "pan";
        }
    };
    element.addEventListener("pointerup", release);
    element.addEventListener("pointercancel", release);
    element.addEventListener("contextmenu", event => event.preventDefault());

    element.addEventListener("wheel", event => {
        event.preventDefault();
        const lines = event.deltaMode === WheelEvent.DOM_DELTA_LINE ? 32 : 1;
        const delta = clamp((event.deltaY || event.deltaX) * lines, -300, 300);
        if (event.shiftKey && paneModes(store.state)[pane.index] === "slab") {
            moveSlab(-delta / 25);
        } else {
            // Spreading two fingers on a touch pad comes as a wheel with Ctrl in small steps.
            zoom(pane, Math.exp(-delta * (event.ctrlKey ? 0.01 : 0.0015)), pane.pixelAt(event));
        }
    }, { passive: false });
}

/** @param {number} mm away from the viewer */
export function moveSlab(mm) {
    const { slab } = store.state;
    const reach = 0.5 * (open.volume?.diameter ?? 0);
    store.update({ slab: { ...slab, offset: clamp(slab.offset + mm, -reach, reach) } }, { moving: true });
}

// Two fingers: what lies between them moves and grows with them.
/** @param {Pane} pane @param {Map<number, PointerEvent>} pointers @param {PointerEvent} event */
function spread(pane, pointers, event) {
    const other = [...pointers.entries()].find(([id]) => id !== event.pointerId)?.[1];
    const last = pointers.get(event.pointerId);
    if (other === undefined || last === undefined) {
        return;
    }
    const between = (/** @type {PointerEvent} */ moved) => ({
        clientX: 0.5 * (moved.clientX + other.clientX),
        clientY: 0.5 * (moved.clientY + other.clientY),
        length: Math.max(10, Math.hypot(moved.clientX - other.clientX, moved.clientY - other.clientY)),
    });
    const before = between(last);
    const now = between(event);
    const at = pane.pixelAt(now);
    const from = pane.pixelAt(before);
    pan(pane, at.x - from.x, at.y - from.y);
    zoom(pane, now.length / before.length, at);
}
