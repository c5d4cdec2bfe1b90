// @ts-check
// The start page: the series that the server found, each with a picture, growing while it still looks.
import { byId, html } from "./dom.js";

/** @typedef {import("./protocol.js").Series} Series */

const pollMs = 1000;
const nothingFound = "No series found. Start the server with a folder of CT or MR slices, or with a volume file.";

/** @param {Series} series */
const describe = series => [series.description && series.folder, series.dims.join(" x ")].filter(Boolean).join(", ");

/** @param {Series} series @param {(id: string) => void} choose */
function card(series, choose) {
    const picture = html("img", { alt: "", width: 192, height: 192, decoding: "async" });
    const node = html("button", { type: "button", class: "card", "data-series": series.id, onclick: () => choose(series.id) }, picture,
        html("strong", {}, [series.modality, series.description || series.folder].filter(Boolean).join("  ") || "Series"), html("span", {}, describe(series)));
    return { node, picture };
}

export class StartPage {
    /** @type {Map<string, ReturnType<typeof card>>} */
    #cards = new Map();
    #timer = 0;
    #opensOnly = false;

    /** @param {(id: string) => void} choose */
    constructor(choose) {
        this.choose = choose;
        this.list = byId("series");
        this.state = byId("scanning");
    }

    /** @param {boolean} [opensOnly] opens a series that proves to be the only one when all folders are searched */
    show(opensOnly = false) {
        this.#opensOnly = opensOnly;
        byId("start").hidden = false;
        document.body.classList.add("at-start");
        this.#poll();
    }

    hide() {
        byId("start").hidden = true;
        document.body.classList.remove("at-start");
        clearTimeout(this.#timer);
    }

    async #poll() {
        clearTimeout(this.#timer);
        let wanted = true;
        try {
            const { scanning, series } = await (await fetch("/api/series")).json();
            this.#draw(series);
            const many = series.length === 1 ? "1 series" : `${series.length} series`;
            this.state.textContent = scanning ? `Looking for series: ${many} so far` : series.length === 0 ? nothingFound : many;
            if (this.#opensOnly && !scanning && series.length === 1 && !byId("start").hidden) {
                this.choose(series[0].id);
                return;
            }
            wanted = scanning || series.some((/** @type {Series} */ s) => !s.thumbnail);
        } catch {
            this.state.textContent = "The server does not answer";
        }
        if (wanted && !byId("start").hidden) {
            this.#timer = setTimeout(() => this.#poll(), pollMs);
        }
    }

    /** @param {Series[]} series */
    #draw(series) {
        for (const one of series) {
            let item = this.#cards.get(one.id);
            if (item === undefined) {
                item = card(one, this.choose);
                this.#cards.set(one.id, item);
                this.list.append(item.node);
            }
            if (one.thumbnail && item.picture.src === "") {
                item.picture.onload = () => item?.picture.classList.add("there");
                item.picture.src = `/api/series/${encodeURIComponent(one.id)}/thumbnail.png`;
            }
        }
    }
}
