// How long a mouse move takes to be seen, and the sharp picture after letting go: printed, beside the engine's own time.
//     node latency.mjs [--size X,Y,Z] [--seconds N] [--edge PIXELS]
import { parseArgs } from "node:util";
import { launch, phantom, serve, Viewer } from "./harness.mjs";

const { values } = parseArgs({
    options: { size: { type: "string", default: "512,512,400" }, seconds: { type: "string", default: "10" }, edge: { type: "string", default: "512" } },
});

/** @param {number[]} numbers @param {number} share */
const quantile = (numbers, share) => [...numbers].sort((a, b) => a - b)[Math.min(numbers.length - 1, Math.floor(share * numbers.length))] ?? NaN;

// In the page: when which scene was asked for by a mouse move, and when it was on the screen.
function record() {
    /** @type {any} */ const log = { asked: [], seen: [], released: 0 };
    /** @type {any} */ (globalThis).log = log;
    const send = WebSocket.prototype.send;
    WebSocket.prototype.send = function (data) {
        const cause = /** @type {any} */ (globalThis).event;
        if (typeof data === "string" && data.includes('"scene"')) {
            const { id, moving } = JSON.parse(data);
            if (moving && cause?.type === "pointermove") {
                log.asked.push({ id, at: cause.timeStamp });
            }
        }
        send.call(this, data);
    };
    addEventListener("pointerup", event => {
        log.released = event.timeStamp;
    }, true);
    addEventListener("picture", event => {
        const { id, final, drawMs, encodeMs } = /** @type {CustomEvent} */ (event).detail;
        // After the next frame of the browser it is on the screen.
        requestAnimationFrame(() => setTimeout(() => log.seen.push({ id, final, drawMs, encodeMs, at: performance.now() })));
    });
}

/** Turns for so long, then lets go. @param {Viewer} viewer @param {number} seconds */
async function turn(viewer, seconds) {
    const { x, y, width, height } = await viewer.bounds();
    const { page } = viewer;
    await page.evaluate(() => Object.assign(/** @type {any} */ (globalThis).log, { asked: [], seen: [], released: 0 }));
    await page.mouse.move(x + 0.5 * width, y + 0.5 * height);
    await page.mouse.down();
    const start = Date.now();
    for (let i = 1; Date.now() - start < 1000 * seconds; ++i) {
        await page.mouse.move(x + (0.5 + 0.3 * Math.sin(i / 40)) * width, y + (0.5 + 0.2 * Math.sin(i / 57)) * height);
        await new Promise(resolve => setTimeout(resolve, Math.max(0, start + i * 16.7 - Date.now())));
    }
    await page.mouse.up();
    await page.waitForTimeout(50);
    await viewer.rest();
    return page.evaluate(() => /** @type {any} */ (globalThis).log);
}

const head = await phantom(values.size);
const server = await serve(head.file, "--port", "0");
const browser = await launch();
const edge = Number(values.edge);
const viewer = await Viewer.open(browser, server.link, { viewport: { width: edge, height: edge + 100 } });
await viewer.rest();
const { height } = await viewer.bounds();
await viewer.page.setViewportSize({ width: edge, height: edge + 100 + Math.round(edge - height) });
await viewer.page.evaluate(record);
const size = await viewer.bounds();
console.log(`phantom ${values.size}, picture ${size.width}x${size.height}`);
console.log("picture    moves  pictures/s   median ms  95 % ms   sharp ms   engine ms (draw + encode)  median / engine");
for (const [name, changes] of /** @type {[string, object][]} */ ([
    ["MIP", { mode: "mip" }], ["ct-angio", { mode: "render", preset: "ct-angio" }], ["ct-bone", { mode: "render", preset: "ct-bone" }],
])) {
    await viewer.update(changes);
    await turn(viewer, 2);
    const { asked, seen, released } = await turn(viewer, Number(values.seconds));
    const moving = seen.filter((/** @type {any} */ s) => s.at < released);
    const latency = asked.flatMap((/** @type {any} */ a) => {
        const picture = seen.find((/** @type {any} */ s) => s.id >= a.id);
        return picture === undefined ? [] : [picture.at - a.at];
    });
    const engine = quantile(moving.map((/** @type {any} */ s) => s.drawMs + s.encodeMs), 0.5);
    const median = quantile(latency, 0.5);
    const sharp = seen.find((/** @type {any} */ s) => s.final && s.at > released).at - released;
    const columns = [asked.length, (moving.length / Number(values.seconds)).toFixed(1), median.toFixed(0), quantile(latency, 0.95).toFixed(0), sharp.toFixed(0), engine.toFixed(1), (median / engine).toFixed(2)];
    console.log(name.padEnd(10) + columns.map((c, i) => String(c).padStart([6, 12, 12, 9, 11, 28, 17][i])).join(""));
}
viewer.faults.forEach(fault => console.log(fault));
await browser.close();
await server.stop();
