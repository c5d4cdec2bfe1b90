// Turns a picture for a long time and looks at what that does: to the server's memory, and to what stands at rest.
//     node turning.mjs [--minutes N] [--size X,Y,Z]
import { fileURLToPath } from "node:url";
import { parseArgs } from "node:util";
import { launch, phantom, serve, Viewer } from "./harness.mjs";

const modes = ["v", "m", "t", "b"];
const mib = 1 << 20;
/** As many pauses at least, however slow the machine is: fewer say nothing about memory. */
const leastRounds = 12;

/**
 * Turns with pauses; at each pause the newest scene must be what is shown, and stay. Returns the server's resident memory
 * at each pause, bytes.
 * @param {Viewer} viewer @param {{memory: () => number}} server @param {number} seconds
 */
export async function turnFor(viewer, server, seconds) {
    const memory = [];
    const until = Date.now() + 1000 * seconds;
    for (let round = 0; round < leastRounds || Date.now() < until; ++round) {
        await viewer.page.keyboard.press(modes[round % modes.length]);
        const angle = round * 0.7;
        await viewer.drag([0.3, 0.4], [0.5 + 0.2 * Math.cos(angle), 0.5 + 0.2 * Math.sin(angle)], { steps: 60 });
        await viewer.page.mouse.wheel(0, round % 2 === 0 ? -200 : 200);
        await viewer.page.waitForTimeout(250);
        await viewer.rest();
        const newest = viewer.sent.id;
        await viewer.page.waitForTimeout(150);
        for (const pane of viewer.sent.panes.keys()) {
            const { id, final } = await viewer.shown(pane);
            if (id !== newest || !final) {
                throw new Error(`at rest pane ${pane} shows scene ${id} (final: ${final}) instead of ${newest}`);
            }
        }
        memory.push(server.memory());
    }
    return memory;
}

/** How much larger the last quarter of the samples is than the second one: their medians. @param {number[]} samples bytes */
export function growth(samples) {
    const quarter = Math.floor(samples.length / 4);
    const median = (/** @type {number[]} */ part) => [...part].sort((a, b) => a - b)[Math.floor(part.length / 2)];
    return median(samples.slice(-quarter)) - median(samples.slice(quarter, 2 * quarter));
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
    const { values } = parseArgs({ options: { minutes: { type: "string", default: "5" }, size: { type: "string", default: "160,160,128" } } });
    const head = await phantom(values.size);
    const server = await serve(head.file, "--port", "0");
    const browser = await launch();
    const viewer = await Viewer.open(browser, server.link);
    await viewer.rest();
    const memory = await turnFor(viewer, server, 60 * Number(values.minutes));
    const grown = growth(memory);
    console.log(`${memory.length} pauses, ${viewer.sent.id} scenes; the server has ${(memory.at(-1) ?? 0) / mib | 0} MiB, ` +
        `${(grown / mib).toFixed(1)} MiB more in the last quarter than in the second; the newest scene was shown at every pause`);
    process.exitCode = grown > 16 * mib || viewer.faults.length > 0 ? 1 : 0;
    viewer.faults.forEach(fault => console.log(fault));
    await browser.close();
    await server.stop();
}
