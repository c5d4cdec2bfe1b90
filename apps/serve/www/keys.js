// @ts-check
// What keys do; the help shows the same list.
import { lookAt, startCamera, turned, views } from "./camera.js";
import { adjust, moveSlab, pan, zoom } from "./gestures.js";
import { startState, store } from "./state.js";
import { startTissues } from "./tissues.js";
import { open } from "./volume.js";

/** @typedef {import("./panes.js").Pane} Pane */
/** @typedef {import("./state.js").Mode} Mode */
/** @typedef {import("./state.js").Tool} Tool */
/**
 * @typedef {object} Actions what keys start elsewhere
 * @property {() => Pane} pane the one that keys act on
 * @property {() => void} help
 * @property {() => void} fullScreen
 * @property {() => void} togglePanel
 * @property {() => void} pickAtCross
 * @property {(dx: number, dy: number) => void} moveCross CSS pixels
 */
/** @typedef {{keys: string[], shown: string, does: string, act: (actions: Actions, key: string, event: KeyboardEvent) => void}} Binding */

const turnStep = Math.PI / 36;

/** The whole volume from the front, with everything else as it is. */
export const resetView = () => store.update({ camera: startCamera() });

/** Everything as a new series starts. */
export function resetAll() {
    const { series, marks, tool, cutting, budgetMs, mode } = store.state;
    const tissues = open.volume === null ? [] : startTissues(open.volume);
    store.update({ ...startState(), series, marks, tool, cutting, budgetMs, mode, tissues });
}

/** @param {Mode} mode */
export function setMode(mode) {
    store.update({ mode, ...(mode === "mip" || mode === "slab" ? { projection: mode } : {}) });
}

/** @param {string} key @returns {[number, number]} right and down */
const direction = key => [Number(key === "ArrowRight") - Number(key === "ArrowLeft"), Number(key === "ArrowDown") - Number(key === "ArrowUp")];

const arrows = ["ArrowLeft", "ArrowRight", "ArrowUp", "ArrowDown"];

/** @param {Actions} actions @param {string} key @param {KeyboardEvent} event */
function arrow(actions, key, event) {
    const [x, y] = direction(key);
    const pane = actions.pane();
    if (event.altKey) {
        actions.moveCross(10 * x, 10 * y);
    } else if (event.shiftKey) {
        pan(pane, 20 * x, 20 * y);
    } else {
        store.update({ camera: turned(store.state.camera, [y, -x, 0], turnStep) }, { moving: true });
    }
}

/** @type {Binding[]} */
export const bindings = [
    {
        keys: views.map(v => v.face.toLowerCase()), shown: "A P L R S I", does: "look at front, back, left, right, head, feet",
        act: (_, key) => {
            const view = views.find(v => v.face.toLowerCase() === key);
            store.update({ camera: lookAt(store.state.camera, view?.face ?? "A") });
        },
    },
    { keys: ["m"], shown: "M", does: "MIP", act: () => setMode("mip") },
    { keys: ["t"], shown: "T", does: "thin slab", act: () => setMode("slab") },
    { keys: ["v"], shown: "V", does: "volume rendering", act: () => setMode("render") },
    { keys: ["b"], shown: "B", does: "both side by side", act: () => setMode("both") },
    { keys: ["0", "Home"], shown: "0", does: "reset the view", act: resetView },
    { keys: ["Shift+r"], shown: "Shift R", does: "reset everything but marks", act: resetAll },
    { keys: arrows, shown: "Arrows", does: "turn; with Shift: move", act: arrow },
    { keys: ["+", "="], shown: "+", does: "zoom in", act: actions => zoom(actions.pane(), 1.1) },
    { keys: ["-", "_"], shown: "-", does: "zoom out", act: actions => zoom(actions.pane(), 1 / 1.1) },
    { keys: ["[", "]"], shown: "[ ]", does: "window brighter, darker; in a rendering: shift", act: (actions, key) => adjust(actions.pane(), 0, key === "]" ? 10 : -10) },
    { keys: ["{", "}"], shown: "{ }", does: "window narrower, wider; in a rendering: opacity", act: (actions, key) => adjust(actions.pane(), key === "}" ? 10 : -10, 0) },
    { keys: [",", "."], shown: ", .", does: "move the slab to you, away", act: (_, key) => moveSlab(key === "." ? 2 : -2) },
    ...(/** @type {[string, Tool, string][]} */ ([["1", "point", "a point"], ["2", "vessel", "a vessel"], ["3", "distance", "a distance"]]))
        .map(([key, tool, what]) => ({ keys: [key], shown: key, does: `clicks pick ${what}`, act: () => store.update({ tool }) })),
    { keys: ["Enter"], shown: "Enter", does: "pick at the cross of the focused picture; Alt with arrows moves it", act: actions => actions.pickAtCross() },
    { keys: ["o"], shown: "O", does: "letters, scale and values on and off", act: () => store.update({ legend: !store.state.legend }) },
    { keys: ["c"], shown: "C", does: "controls on and off", act: actions => actions.togglePanel() },
    { keys: ["f"], shown: "F", does: "full screen", act: actions => actions.fullScreen() },
    { keys: ["?"], shown: "?", does: "this help", act: actions => actions.help() },
];

/** @param {Actions} actions */
export function listenToKeys(actions) {
    // The cross of keyboard picks is there for whoever uses the keyboard.
    const { classList } = document.documentElement;
    document.addEventListener("pointerdown", () => classList.remove("keyboard"));
    document.addEventListener("keydown", event => {
        if ([...arrows, "Tab", "Enter"].includes(event.key)) {
            classList.add("keyboard");
        }
        const target = /** @type {HTMLElement} */ (event.target);
        const onPane = target === document.body || target.classList.contains("pane");
        // Some keyboards have brackets and braces on a key that counts as Ctrl and Alt.
        const isTyped = event.getModifierState("AltGraph");
        if ((event.ctrlKey && !isTyped) || event.metaKey || event.defaultPrevented || document.querySelector("dialog[open]") !== null ||
            target.matches("input:not([type=range], [type=checkbox]), select, textarea")) {
            return;
        }
        // Arrows and Enter belong to whatever control has the focus; buttons of the bar have no use for arrows.
        const isOwn = (arrows.includes(event.key) && target.closest("#bar") === null) || ["Enter", "Home"].includes(event.key);
        if ((isOwn && !onPane) || (event.altKey && !isTyped && !arrows.includes(event.key))) {
            return;
        }
        const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
        const binding = bindings.find(b => b.keys.includes(event.shiftKey && key === "r" ? "Shift+r" : key));
        if (binding !== undefined) {
            event.preventDefault();
            binding.act(actions, key, event);
        }
    });
}
