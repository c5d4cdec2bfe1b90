// @ts-check
// The panes: each shows the newest picture that arrived for it, one pixel of the picture on one pixel of the screen
// when it has that many.
import { byId, html } from "./dom.js";
import { paneEdge } from "./protocol.js";

/** @typedef {import("./protocol.js").PictureHeader} PictureHeader */

const names = ["Picture", "Second picture"];

/** Device pixels of a length in CSS pixels: what the browser says, unless it is no rounding of theirs. @param {number} css @param {number} [exact] */
function wholePixels(css, exact) {
    const pixels = css * devicePixelRatio;
    return exact !== undefined && Math.abs(exact - pixels) < 1 ? exact : Math.round(pixels);
}

export class Pane {
    /** Size of the picture that the pane wants, pixels. */
    width = 0;
    height = 0;
    /** @type {PictureHeader | null} what is on the screen */
    shown = null;
    /** Pictures of older scenes are of another mode or series. */
    oldest = 0;
    /** @type {ImageBitmap | null} */
    #bitmap = null;
    #arrived = 0;
    #drawn = 0;

    /** @param {number} index @param {() => void} onSize called when the pane has another size */
    constructor(index, onSize) {
        this.index = index;
        this.canvas = html("canvas");
        this.element = html("section", {
            class: "pane", tabIndex: 0, role: "application", "data-pane": index, "aria-label": names[index],
            "aria-roledescription": "picture that turns", "aria-describedby": "pane-keys",
        }, this.canvas);
        byId("stage").append(this.element);
        const observer = new ResizeObserver(([entry]) => {
            const exact = entry.devicePixelContentBoxSize?.[0];
            this.#resize(wholePixels(this.element.clientWidth, exact?.inlineSize), wholePixels(this.element.clientHeight, exact?.blockSize));
            onSize();
        });
        try {
            observer.observe(this.canvas, { box: "device-pixel-content-box" });
        } catch {
            observer.observe(this.canvas);  // a browser that does not tell device pixels
        }
    }

    /** CSS pixels for one pixel of the picture. */
    get scale() {
        return this.width > 0 ? this.element.clientWidth / this.width : 1;
    }

    get isVisible() {
        return this.width > 0 && !this.element.hidden;
    }

    /** The pixel of the picture under a pointer. @param {{clientX: number, clientY: number}} event */
    pixelAt(event) {
        const bounds = this.element.getBoundingClientRect();
        return {
            x: ((event.clientX - bounds.left) / bounds.width) * this.width - 0.5,
            y: ((event.clientY - bounds.top) / bounds.height) * this.height - 0.5,
        };
    }

    /**
     * Decodes a picture and shows it, unless a newer one was faster. Calls `done` when it is over either way.
     * @param {PictureHeader} header @param {Blob} image @param {() => void} done
     */
    async take(header, image, done) {
        const arrival = ++this.#arrived;
        try {
            const bitmap = await createImageBitmap(image);
            const stale = header.id < this.oldest || arrival < this.#drawn || (this.shown !== null && header.id < this.shown.id);
            if (stale) {
                bitmap.close();
            } else {
                this.#drawn = arrival;
                this.#bitmap?.close();
                this.#bitmap = bitmap;
                this.shown = header;
                this.#draw();
                this.element.dispatchEvent(new CustomEvent("picture", { detail: header, bubbles: true }));
            }
        } finally {
            done();
        }
    }

    /** Forgets the picture. */
    clear() {
        this.#bitmap?.close();
        this.#bitmap = null;
        this.shown = null;
        this.#draw();
    }

    /** @param {number} width @param {number} height device pixels */
    #resize(width, height) {
        if (width === 0 || height === 0) {
            this.width = this.height = 0;
            return;
        }
        const fit = Math.min(1, paneEdge.most / width, paneEdge.most / height);
        this.width = Math.max(paneEdge.least, Math.round(width * fit));
        this.height = Math.max(paneEdge.least, Math.round(height * fit));
        if (this.canvas.width !== this.width || this.canvas.height !== this.height) {
            this.canvas.width = this.width;
            this.canvas.height = this.height;
            this.#draw();
        }
    }

    #draw() {
        const context = this.canvas.getContext("2d", { alpha: false });
        if (context === null) {
            return;
        }
        if (this.#bitmap === null || this.shown === null) {
            context.clearRect(0, 0, this.width, this.height);
            return;
        }
        // A picture of the pane's former size stands in its middle, as large as its successor will be.
        const { width, height } = this.shown;
        const fit = Math.min(this.width, this.height) / Math.min(width, height);
        const exact = width === this.width && height === this.height;
        const w = exact ? this.width : width * fit;
        const h = exact ? this.height : height * fit;
        if (!exact) {
            context.clearRect(0, 0, this.width, this.height);
        }
        context.imageSmoothingEnabled = this.#bitmap.width !== w;
        context.drawImage(this.#bitmap, (this.width - w) / 2, (this.height - h) / 2, w, h);
    }
}
