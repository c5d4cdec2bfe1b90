// @ts-check
// Clicks on a picture: the server says what is there, the state keeps it as a mark.
import { mostMarks } from "./link.js";
import { say } from "./notices.js";
import { amountOf } from "./overlay.js";
import { store } from "./state.js";
import { clamp, distance } from "./vectors.js";
import { positionText } from "./volume.js";

/** @typedef {import("./connection.js").Connection} Connection */
/** @typedef {import("./panes.js").Pane} Pane */
/** @typedef {import("./overlay.js").Overlay} Overlay */
/** @typedef {import("./protocol.js").Picked} Picked */
/** @typedef {import("./state.js").Mark} Mark */
/** @typedef {import("./vectors.js").Vec3} Vec3 */

/** A click as near to a mark means its position, CSS pixels. */
const snapCss = 9;

/** @param {string} letter */
function nextLabel(letter) {
    const used = store.state.marks.map(m => m.label);
    let n = 1;
    while (used.includes(`${letter}${n}`)) {
        ++n;
    }
    return `${letter}${n}`;
}

/** @param {Mark} mark */
function keep(mark) {
    if (store.state.marks.length >= mostMarks) {
        say(`${mostMarks} marks are the most: remove some`, "error");
        return;
    }
    store.update({ marks: [...store.state.marks, mark] });
    const vessel = mark.kind === "vessel" ? `vessel, ${mark.vesselClass}, ` : "";
    say(`${mark.label}: ${vessel}${amountOf(mark)}, at ${positionText(mark.position)}`);
}

/** @param {Overlay} overlay @param {{x: number, y: number}} at pixels */
function markNear(overlay, at) {
    const { scale } = overlay.pane;
    return store.state.marks
        .flatMap(m => (m.end === undefined ? [m.position] : [m.position, m.end]))
        .find(position => {
            const place = overlay.place(position);
            return Math.hypot(place.x - (at.x + 0.5) * scale, place.y - (at.y + 0.5) * scale) < snapCss;
        });
}

/**
 * Picks what a pixel shows, as the chosen tool or, with `vessel`, the vessel there.
 * @param {Connection} connection @param {Overlay} overlay @param {{x: number, y: number}} at @param {boolean} vessel
 */
export async function pickAt(connection, overlay, at, vessel) {
    const { pane } = overlay;
    const tool = vessel ? "vessel" : store.state.tool;
    const near = tool === "distance" ? markNear(overlay, at) : undefined;
    if (near !== undefined) {
        takeEnd(near);
        return;
    }
    try {
        const message = await connection.ask({
            type: "pick", pane: pane.index, vessel: tool === "vessel",
            x: clamp(Math.round(at.x), 0, pane.width - 1), y: clamp(Math.round(at.y), 0, pane.height - 1),
        }, "picked").answer;
        take(/** @type {Picked} */ (/** @type {unknown} */ (message)), tool);
    } catch (error) {
        say(/** @type {Error} */ (error).message, "error");
    }
}

/** @param {Picked} picked @param {Mark["kind"]} tool */
function take(picked, tool) {
    const { vessel } = picked;
    if (tool === "vessel" && vessel?.found && vessel.centre !== undefined) {
        keep({ kind: "vessel", label: nextLabel("V"), position: vessel.centre, vesselClass: vessel.class, length: vessel.length ?? 0 });
    } else if (tool === "vessel") {
        say(`No vessel here: ${vessel?.reason || picked.text}`);
    } else if (picked.outcome !== "shown" || picked.position === undefined) {
        say(`${picked.text}.`);
    } else if (tool === "distance") {
        takeEnd(picked.position);
    } else {
        keep({ kind: "point", label: nextLabel("P"), position: picked.position, value: picked.value });
    }
}

/** @param {Vec3} position */
function takeEnd(position) {
    const { firstEnd } = store.state;
    if (firstEnd === null) {
        store.update({ firstEnd: position });
        say("Now click the other end");
    } else if (distance(firstEnd, position) > 0.01) {
        store.update({ firstEnd: null });
        keep({ kind: "distance", label: nextLabel("D"), position: firstEnd, end: position });
    }
}

// Another tool, or Escape, forgets the first end.
document.addEventListener("keydown", event => {
    if (event.key === "Escape" && store.state.firstEnd !== null) {
        store.update({ firstEnd: null });
    }
});
store.subscribe(() => {
    if (store.state.tool !== "distance" && store.state.firstEnd !== null) {
        store.update({ firstEnd: null });
    }
});
