// @ts-check
// Puts the page together: the connection feeds the panes, every change of the state goes out as a scene.
import { views, lookAt } from "./camera.js";
import { Connection } from "./connection.js";
import { cutSection } from "./cut.js";
import { byId, html } from "./dom.js";
import { makeExports } from "./exports.js";
import { choice } from "./fields.js";
import { listen } from "./gestures.js";
import { Handles } from "./handles.js";
import { makeHelp, showHint } from "./help.js";
import { listenToKeys, resetAll, resetView, setMode } from "./keys.js";
import { linkOf, stateOf } from "./link.js";
import { renderingSection, slabSection, speedSection, windowSection } from "./looks.js";
import { markSection } from "./marks.js";
import { say, stand } from "./notices.js";
import { Overlay } from "./overlay.js";
import { Pane } from "./panes.js";
import { pickAt } from "./picking.js";
import { paneModes, sceneOf } from "./protocol.js";
import { StartPage } from "./start.js";
import { startState, store } from "./state.js";
import { startTissues, tissueSection } from "./tissues.js";
import { faceOf } from "./camera.js";
import { open } from "./volume.js";

/** @typedef {import("./connection.js").Message} Message */
/** @typedef {import("./protocol.js").Volume} Volume */

const connection = new Connection();
const panes = [0, 1].map(index => new Pane(index, () => {
    moveCross(0, 0);
    sendScene();
}));
const overlays = panes.map(pane => new Overlay(pane));
overlays.forEach(overlay => new Handles(overlay));
const startPage = new StartPage(openSeries);
const exporting = makeExports(connection, activePane);
const speed = speedSection();

// The pane that keys and files are about: the one that was used last.
let active = 0;
function activePane() {
    return panes[paneModes(store.state).length > active ? active : 0];
}

// Scenes. Ids grow as long as the page lives, over connections too. The server takes them for the series that it opened.
let isOpened = false;
let sceneId = 0;
let sentScene = "";
let sentModes = "";

function sendScene() {
    const modes = paneModes(store.state);
    const { volume } = open;
    if (volume === null || !isOpened || panes.some((pane, i) => i < modes.length && !pane.isVisible)) {
        return;
    }
    const scene = { moving: store.moving, ...sceneOf(store.state, volume, panes) };
    const text = JSON.stringify(scene);
    if (text === sentScene) {
        return;
    }
    ++sceneId;
    if (modes.join() !== sentModes) {
        panes.forEach(pane => {
            pane.oldest = sceneId;
        });
        sentModes = modes.join();
    }
    sentScene = text;
    connection.send({ id: sceneId, ...scene });
}

/** @param {string} id */
function openSeries(id) {
    isOpened = false;
    if (open.volume?.series !== id) {
        closeVolume();
    }
    const { series, budgetMs, legend } = store.state;
    store.update(series === id ? {} : { ...startState(), budgetMs, legend, series: id });
    startPage.hide();
    showLoading("Loading", 0);
    connection.send({ type: "open", series: id });
}

// Pictures that still come are of the former volume.
function closeVolume() {
    isOpened = false;
    open.volume = null;
    open.window = null;
    sentScene = "";
    panes.forEach(pane => {
        pane.clear();
        pane.oldest = sceneId + 1;
    });
}

function leaveSeries() {
    closeVolume();
    showLoading(null, 0);
    store.update({ ...startState(), budgetMs: store.state.budgetMs });
    startPage.show();
}

/** @param {string | null} text @param {number} fraction */
function showLoading(text, fraction) {
    byId("loading").hidden = text === null;
    byId("loading").classList.toggle("aside", open.volume !== null);
    byId("loading-text").textContent = text ?? "";
    /** @type {HTMLProgressElement} */ (byId("loading-bar")).value = fraction;
}

/** @type {Record<string, (message: any) => void>} */
const answers = {
    hello(message) {
        open.hello = message;
        const wanted = store.state.series ?? message.default;
        if (wanted === null) {
            startPage.show(true);
        } else {
            openSeries(wanted);
        }
    },
    opening({ fraction, slices, of }) {
        const isDone = fraction >= 1 && panes[0].shown !== null;
        showLoading(isDone ? null : fraction >= 1 ? "Drawing" : of > 0 ? `Loading: ${slices} of ${of} slices` : "Loading", fraction);
    },
    volume(/** @type {Volume} */ message) {
        open.volume = message;
        isOpened = true;
        sentScene = "";
        startPage.hide();
        if (message.complete) {
            showLoading(panes[0].shown === null ? "Drawing" : null, 1);
        }
        byId("title").textContent = titles.get(message.series) ?? message.modality;
        const known = message.tissues.map(t => t.label).join() === store.state.tissues.map(t => t.label).join();
        store.update({ series: message.series, ...(known ? {} : { tissues: startTissues(message) }) });
    },
    rate: message => speed.show(message),
    error({ text, fatal }) {
        say(text, "error");
        if (open.volume === null && !fatal) {
            leaveSeries();
        }
    },
};

// What the start page calls each series is what the open one is called.
/** @type {Map<string, string>} */
const titles = new Map();
async function learnTitles() {
    const { series } = await fetch("/api/series").then(answer => answer.json(), () => ({ series: [] }));
    for (const one of series) {
        titles.set(one.id, [one.description || one.folder, one.modality, one.dims.join(" x ")].filter(Boolean).join(", "));
    }
    const { volume } = open;
    if (volume !== null) {
        byId("title").textContent = titles.get(volume.series) ?? volume.modality;
    }
}

connection.onMessage = message => answers[message.type]?.(message);
connection.onPicture = ({ header, image }) => {
    panes[header.pane]?.take(header, image, () => connection.send({ type: "shown", id: header.id, pane: header.pane }));
};
connection.onStatus = status => {
    byId("app").dataset.connection = status;
    if (status === "open") {
        stand("connection", null);
        learnTitles();
        return;
    }
    isOpened = false;
    if (status === "lost") {
        stand("connection", "The connection was cut. Trying again.", { label: "Now", act: () => connection.hurry() });
    } else {
        stand("connection", "The server was started anew. Open the link that it printed.");
    }
};
for (const event of ["online", "focus"]) {
    addEventListener(event, () => connection.hurry());
}

// The address always restores what is seen.
let remembering = 0;
function remember() {
    clearTimeout(remembering);
    remembering = setTimeout(() => history.replaceState(null, "", store.state.series === null ? "/" : `#${linkOf(store.state)}`), 300);
}

function layOut() {
    const modes = paneModes(store.state);
    byId("stage").classList.toggle("two", modes.length === 2);
    panes.forEach((pane, i) => {
        pane.element.hidden = i >= modes.length;
        pane.element.dataset.mode = modes[i] ?? "";
    });
}

function toggleFullScreen() {
    if (document.fullscreenElement === null) {
        document.documentElement.requestFullscreen().catch(() => say("This browser does not allow full screen", "error"));
    } else {
        document.exitFullscreen();
    }
}

function togglePanel() {
    const isOpen = byId("app").classList.toggle("panel-open");
    byId("panel-button").setAttribute("aria-expanded", String(isOpen));
}

function furnish() {
    byId("modes").append(choice("Mode", [
        { value: "mip", label: "MIP", title: "Maximum intensity projection (M)" },
        { value: "slab", label: "Slab", title: "Projection of a slab (T)" },
        { value: "render", label: "Volume", title: "Volume rendering (V)" },
        { value: "both", label: "Both", title: "Projection and rendering side by side (B)" },
    ], s => s.mode, value => setMode(/** @type {any} */ (value))));
    const viewChoice = () => choice("View", views.map(v => ({ value: v.face, label: v.face, title: `${v.name} view (${v.face})` })),
        s => faceOf(s.camera)?.face ?? "", value => store.update({ camera: lookAt(store.state.camera, /** @type {any} */ (value)) }));
    byId("tools").append(choice("A click picks", [
        { value: "point", label: "Point", title: "A click marks a point and its value (1)" },
        { value: "vessel", label: "Vessel", title: "A click finds the middle of a vessel (2)" },
        { value: "distance", label: "Distance", title: "Two clicks measure a distance (3)" },
    ], s => s.tool, value => store.update({ tool: /** @type {any} */ (value) })));
    byId("views").append(viewChoice());
    byId("panel").append(html("div", { id: "views-too" }, viewChoice()), renderingSection(), windowSection(), slabSection(), tissueSection(), cutSection(),
        markSection(kind => exporting.saveMarks(kind)), exporting.element, speed.element);

    const help = makeHelp();
    /** @type {[string, () => void][]} */
    const buttons = [
        ["list-button", leaveSeries], ["reset-button", resetView], ["reset-all-button", resetAll],
        ["full-button", toggleFullScreen], ["panel-button", togglePanel], ["help-button", help],
    ];
    for (const [id, act] of buttons) {
        byId(id).addEventListener("click", act);
    }
    byId("app").classList.toggle("panel-open", matchMedia("(min-width: 760px)").matches);
    byId("panel-button").setAttribute("aria-expanded", String(byId("app").classList.contains("panel-open")));
    listenToKeys({
        pane: activePane, help, fullScreen: toggleFullScreen, togglePanel,
        pickAtCross: () => pickAt(connection, overlays[activePane().index], crossPixel(), false),
        moveCross: (dx, dy) => moveCross(dx, dy),
    });
}

// The cross of keyboard picks, as a share of the pane.
const cross = { x: 0.5, y: 0.5 };
const crossPixel = () => ({ x: cross.x * activePane().width - 0.5, y: cross.y * activePane().height - 0.5 });

/** @param {number} dx @param {number} dy CSS pixels */
function moveCross(dx, dy) {
    const { element } = activePane();
    cross.x = Math.min(1, Math.max(0, cross.x + dx / element.clientWidth));
    cross.y = Math.min(1, Math.max(0, cross.y + dy / element.clientHeight));
    overlays.forEach(o => o.putCross(cross.x * o.pane.element.clientWidth, cross.y * o.pane.element.clientHeight));
}

furnish();
byId("stage").addEventListener("picture", event => {
    const { window } = /** @type {CustomEvent<import("./protocol.js").PictureHeader>} */ (event).detail;
    if (store.state.window === null && window !== null && JSON.stringify(window) !== JSON.stringify(open.window)) {
        open.window = window;
        store.update({}, { moving: store.moving });
    }
    if (open.volume?.complete) {
        showLoading(null, 1);
    }
});
panes.forEach((pane, i) => {
    listen(pane, (at, vessel) => pickAt(connection, overlays[i], at, vessel));
    const use = () => {
        active = i;
        moveCross(0, 0);
    };
    pane.element.addEventListener("focus", use);
    pane.element.addEventListener("pointerdown", use);
});
const restored = stateOf(location.hash);
if (restored !== null) {
    store.update(restored);
}
addEventListener("hashchange", () => {
    const state = stateOf(location.hash);
    if (state !== null) {
        const { series } = store.state;
        store.update(state);
        if (state.series !== null && state.series !== series) {
            openSeries(state.series);
        }
    }
});
store.subscribe(layOut);
store.subscribe(sendScene);
store.subscribe(remember);
showHint();
connection.connect();
