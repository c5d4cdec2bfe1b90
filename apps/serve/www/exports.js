// @ts-check
// The panel's part for what is taken away: a picture, a movie, a link, and the marks as files.
import { html } from "./dom.js";
import { button, section } from "./fields.js";
import { linkOf } from "./link.js";
import { pointsOf } from "./marks.js";
import { say } from "./notices.js";
import { store } from "./state.js";
import { open } from "./volume.js";

/** @typedef {import("./connection.js").Connection} Connection */
/** @typedef {import("./panes.js").Pane} Pane */

/** @param {string} url @param {string} name */
function download(url, name) {
    const link = html("a", { href: url, download: name });
    document.body.append(link);
    link.click();
    link.remove();
}

/** A select with its label. @param {string} label @param {[value: string, text: string][]} options @param {string} value */
function select(label, options, value) {
    const input = html("select", {}, ...options.map(([v, text]) => html("option", { value: v, selected: v === value }, text)));
    return { input, row: html("label", { class: "row" }, label, input) };
}

/** The largest size of these proportions whose longer edge is at most so many pixels; even, as movies want. @param {Pane} pane @param {number} edge */
function sizeFor(pane, edge) {
    const factor = edge / Math.max(pane.width, pane.height);
    const even = (/** @type {number} */ n) => Math.max(16, 2 * Math.round((n * factor) / 2));
    return { width: even(pane.width), height: even(pane.height) };
}

/** The address of this view, with what it takes to be let in. */
export const linkAddress = () => `${location.origin}/?token=${encodeURIComponent(open.hello?.token ?? "")}#${linkOf(store.state)}`;

async function copyLink() {
    const address = linkAddress();
    try {
        await navigator.clipboard.writeText(address);
        say("The link is in the clipboard");
    } catch {
        // Without the clipboard's permission the person copies it.
        prompt("Copy this link:", address);
    }
}

/** @param {Connection} connection @param {() => Pane} activePane */
export function makeExports(connection, activePane) {
    const bar = html("progress", { max: 1, value: 0, "aria-label": "Progress of the file" });
    const stop = button("Cancel", () => running?.cancel());
    const progress = html("div", { class: "progress", hidden: true }, bar, stop);
    /** @type {ReturnType<Connection["ask"]> | null} */
    let running = null;

    /** @param {object} message */
    async function save(message) {
        if (running !== null) {
            say("Another file is being made", "error");
            return;
        }
        bar.value = 0;
        progress.hidden = false;
        running = connection.ask({ type: "export", ...message }, "file", fraction => {
            bar.value = fraction;
        });
        try {
            const file = await running.answer;
            download(file.url, file.name);
            say(`Saved ${file.name}`);
        } catch (error) {
            const { name, message: text } = /** @type {Error} */ (error);
            say(name === "AbortError" ? "Cancelled" : text, name === "AbortError" ? "status" : "error");
        } finally {
            running = null;
            progress.hidden = true;
        }
    }

    const size = select("Size", [["0", "as on the screen"], ["1024", "1024 pixels"], ["2048", "2048 pixels"], ["4096", "4096 pixels"]], "0");
    const seconds = select("A turn takes", [["4", "4 s"], ["8", "8 s"], ["12", "12 s"]], "8");
    const annotate = html("input", { type: "checkbox", checked: true });
    const pictureSize = (/** @type {number} */ most) => {
        const pane = activePane();
        const edge = Number(size.input.value);
        return edge === 0 && Math.max(pane.width, pane.height) <= most
            ? { width: pane.width, height: pane.height } : sizeFor(pane, Math.min(edge || most, most));
    };
    const saveMovie = () => {
        const framesPerSecond = 24;
        const chosen = pictureSize(2048);
        // Encoders want even sizes.
        const even = { width: chosen.width - (chosen.width % 2), height: chosen.height - (chosen.height % 2) };
        save({ kind: "movie", pane: activePane().index, ...even, frames: framesPerSecond * Number(seconds.input.value), framesPerSecond, annotate: annotate.checked });
    };
    return {
        element: section("Take away", false, size.row, html("label", { class: "toggle" }, annotate, "Letters and scale in the picture"),
            html("div", { class: "buttons" },
                button("Save picture", () => save({ kind: "png", pane: activePane().index, ...pictureSize(4096), annotate: annotate.checked }), "PNG at full quality")),
            seconds.row, html("div", { class: "buttons" }, button("Save movie of a turn", saveMovie)), progress,
            html("div", { class: "buttons" }, button("Copy link to this view", copyLink, "View, look, cuts and marks; who has it may see the data as long as the server runs"))),
        /** @param {"markups" | "csv"} kind */
        saveMarks: kind => save({ kind, points: store.state.marks.flatMap(pointsOf) }),
    };
}
