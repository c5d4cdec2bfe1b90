// A server, a browser and a page for tests: what they share and how they end.
import { execFile, spawn } from "node:child_process";
import fs from "node:fs";
import net from "node:net";
import os from "node:os";
import path from "node:path";
import { fileURLToPath } from "node:url";
import { promisify } from "node:util";
import { chromium } from "playwright-core";

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
export const volr = process.env.VOLR_PROGRAM ?? path.join(root, "build/release/bin/volr");
export const pictures = path.join(root, "out/browser");
export const work = fs.mkdtempSync(path.join(os.tmpdir(), "volr-browser-"));
process.on("exit", () => fs.rmSync(work, { recursive: true, force: true }));

/** Runs the tool; its output. @param {string[]} options */
export const tool = async (...options) => (await promisify(execFile)(volr, options, { maxBuffer: 1 << 26 })).stdout;

/** A phantom with its true vessels, made once. @param {string} size */
export async function phantom(size) {
    const file = path.join(work, `head-${size}.mha`);
    const truth = path.join(work, `head-${size}.json`);
    const labels = path.join(work, `labels-${size}.mha`);
    if (!fs.existsSync(file)) {
        await tool("phantom", "head", "--size", size, "-o", file, "--centrelines", truth, "--labels", labels, "--quiet");
    }
    return { file, labels, vessels: JSON.parse(fs.readFileSync(truth, "utf8")).vessels };
}

/** Starts `volr serve`; resolves when it has printed its link. @param {string[]} options */
export function serve(...options) {
    const child = spawn(volr, ["serve", ...options], { stdio: ["ignore", "pipe", "pipe"] });
    const ended = new Promise(resolve => child.once("exit", resolve));
    let text = "";
    return new Promise((resolve, reject) => {
        const read = (/** @type {Buffer} */ chunk) => {
            text += chunk;
            const link = /http:\/\/\S+token=\S+/.exec(text)?.[0];
            if (link !== undefined) {
                resolve({
                    link,
                    port: Number(new URL(link).port),
                    said: () => text,
                    /** Memory that is resident now, bytes. */
                    memory: () => 4096 * Number(fs.readFileSync(`/proc/${child.pid}/statm`, "utf8").split(" ")[1]),
                    stop: () => {
                        child.kill("SIGINT");
                        return ended;
                    },
                });
            }
        };
        child.stdout.on("data", read);
        child.stderr.on("data", read);
        child.once("exit", status => reject(new Error(`volr serve ended with ${status}: ${text}`)));
    });
}

/** @param {string[]} more arguments */
export const launch = (...more) => chromium.launch({
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
    headless: true,
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
        "--disable-component-update", "--disable-sync", ...more],
});

/** Stands between browser and server on a port of its own, and can cut the wire. @param {number} target port */
export function wire(target) {
    /** @type {Set<net.Socket>} */
    const sockets = new Set();
    let whole = true;
    const server = net.createServer(socket => {
        const other = net.connect(target, "127.0.0.1");
        for (const [from, to] of [[socket, other], [other, socket]]) {
            sockets.add(from);
            from.pipe(to);
            from.on("error", () => to.destroy());
            from.on("close", () => {
                sockets.delete(from);
                to.destroy();
            });
        }
        if (!whole) {
            socket.destroy();
        }
    });
    return new Promise(resolve => server.listen(0, "127.0.0.1", () => resolve({
        port: /** @type {net.AddressInfo} */ (server.address()).port,
        cut: () => {
            whole = false;
            sockets.forEach(socket => socket.destroy());
        },
        mend: () => {
            whole = true;
        },
        close: () => server.close(),
    })));
}

/** A page of the viewer, what it said and what it was sent. */
export class Viewer {
    /** What must not happen on any page: errors, refused policies, requests to others. @type {string[]} */
    faults = [];
    /** @type {{id: number, moving: boolean, panes: object[], [field: string]: any}} the last scene that the page sent */
    sent = { id: 0, moving: false, panes: [] };
    sentAt = 0;

    /** @param {import("playwright-core").Page} page */
    constructor(page) {
        this.page = page;
    }

    /**
     * @param {import("playwright-core").Browser} browser @param {string} link
     * @param {import("playwright-core").BrowserContextOptions} [options]
     */
    static async open(browser, link, options = {}) {
        const context = await browser.newContext({ viewport: { width: 900, height: 564 }, acceptDownloads: true, ...options });
        const viewer = new Viewer(await context.newPage());
        const { page } = viewer;
        page.on("pageerror", error => viewer.faults.push(String(error)));
        // Small pictures that are not drawn yet are asked for again.
        page.on("console", message => message.type() === "error" && !/\/api\/.*\.png/.test(message.location().url) && viewer.faults.push(message.text()));
        page.on("request", request => {
            if (new URL(request.url()).host !== new URL(link).host && !/^(blob|data):/.test(request.url())) {
                viewer.faults.push(`asked for ${request.url()}`);
            }
        });
        page.on("websocket", socket => socket.on("framesent", ({ payload }) => {
            const message = JSON.parse(String(payload));
            if (message.type === "scene") {
                viewer.sent = message;
                viewer.sentAt = Date.now();
            }
        }));
        await page.addInitScript(() => {
            /** @type {any} */ (globalThis).shown = {};
            addEventListener("picture", event => {
                const { detail } = /** @type {CustomEvent} */ (event);
                /** @type {any} */ (globalThis).shown[detail.pane] = detail;
            });
        });
        await page.goto(link);
        return viewer;
    }

    close() {
        return this.page.context().close();
    }

    /** The header of what a pane shows. @param {number} [pane] */
    shown(pane = 0) {
        return this.page.evaluate(index => /** @type {any} */ (globalThis).shown[index], pane);
    }

    /** Waits until every pane shows the final picture of the last scene, and nothing more is on its way. */
    async rest() {
        for (const start = Date.now(); Date.now() - start < 60_000; await this.page.waitForTimeout(30)) {
            const { id, moving, panes } = this.sent;
            if (id > 0 && !moving && Date.now() - this.sentAt > 100) {
                const shown = await Promise.all(panes.map((_, i) => this.shown(i)));
                if (shown.every(s => s?.final && s.id === this.sent.id)) {
                    return;
                }
            }
        }
        throw new Error(`no rest: sent ${JSON.stringify(this.sent).slice(0, 300)}, shown ${JSON.stringify(await this.shown())}; ${this.faults}`);
    }

    /** @returns {Promise<any>} */
    state() {
        return this.page.evaluate(async () => (await import("/www/state.js")).store.state);
    }

    /** Changes the state as a control would, and waits for its picture. @param {object} changes */
    async update(changes) {
        await this.page.evaluate(async change => (await import("/www/state.js")).store.update(change), changes);
        await this.page.waitForTimeout(20);
        await this.rest();
    }

    /** @param {number} [pane] */
    async bounds(pane = 0) {
        const box = await this.page.locator(".pane").nth(pane).boundingBox();
        return box ?? { x: 0, y: 0, width: 0, height: 0 };
    }

    /** Where the first pane shows a patient position, as client coordinates. @param {number[]} position */
    async place(position) {
        const { geometry, width } = await this.shown();
        const { x, y, width: css } = await this.bounds();
        const along = (/** @type {number[]} */ step) =>
            step.reduce((sum, s, i) => sum + s * (position[i] - geometry.origin[i]), 0) / step.reduce((sum, s) => sum + s * s, 0);
        return { x: x + ((along(geometry.right) + 0.5) * css) / width, y: y + ((along(geometry.down) + 0.5) * css) / width };
    }

    /** Drags between points of the first pane, given as shares of it. @param {number[]} from @param {number[]} to @param {{button?: "left" | "middle" | "right", steps?: number}} [how] */
    async drag(from, to, { button = "left", steps = 6 } = {}) {
        const { x, y, width, height } = await this.bounds();
        await this.page.mouse.move(x + from[0] * width, y + from[1] * height);
        await this.page.mouse.down({ button });
        await this.page.mouse.move(x + to[0] * width, y + to[1] * height, { steps });
        await this.page.mouse.up({ button });
        await this.page.waitForTimeout(20);
    }

    /**
     * How a pane differs from a picture file: greatest and mean difference of a colour, 0 to 255.
     * @param {string | Buffer} png @param {number} [pane]
     */
    difference(png, pane = 0) {
        const base64 = (typeof png === "string" ? fs.readFileSync(png) : png).toString("base64");
        return this.page.evaluate(async ([data, index]) => {
            const bytes = Uint8Array.from(atob(String(data)), c => c.charCodeAt(0));
            const bitmap = await createImageBitmap(new Blob([bytes], { type: "image/png" }));
            const canvas = document.querySelectorAll("canvas")[Number(index)];
            const other = new OffscreenCanvas(bitmap.width, bitmap.height);
            const pixels = (/** @type {any} */ c) => c.getContext("2d").getImageData(0, 0, bitmap.width, bitmap.height).data;
            other.getContext("2d")?.drawImage(bitmap, 0, 0);
            if (canvas.width !== bitmap.width || canvas.height !== bitmap.height) {
                return { most: 255, mean: 255, size: `${canvas.width}x${canvas.height}, file ${bitmap.width}x${bitmap.height}` };
            }
            const [a, b] = [pixels(canvas), pixels(other)];
            let most = 0;
            let sum = 0;
            for (let i = 0; i < a.length; ++i) {
                const d = Math.abs(a[i] - b[i]);
                most = Math.max(most, d);
                sum += d;
            }
            return { most, mean: sum / a.length, size: "" };
        }, [base64, pane]);
    }

    /** The pixels of a pane, to compare with later. @param {number} [pane] */
    async snapshot(pane = 0) {
        const url = await this.page.evaluate(index => document.querySelectorAll("canvas")[index].toDataURL(), pane);
        return Buffer.from(url.split(",")[1], "base64");
    }
}
