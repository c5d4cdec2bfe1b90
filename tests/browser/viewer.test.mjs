// What a person does with the viewer, done by script: against the tool's own pictures and the phantom's own truth.
import assert from "node:assert/strict";
import fs from "node:fs";
import path from "node:path";
import { after, before, test } from "node:test";
import { launch, phantom, pictures, serve, tool, Viewer, wire, work } from "./harness.mjs";
import { growth, turnFor } from "./turning.mjs";

/** @type {any} */ let server;
/** @type {any} */ let browser;
/** @type {any} */ let head;

before(async () => {
    fs.mkdirSync(pictures, { recursive: true });
    head = await phantom("160,160,128");
    server = await serve(head.file, "--port", "0");
    browser = await launch();
});
after(async () => {
    await browser?.close();
    await server?.stop();
});

/**
 * A test with a page of its own, which must end without errors or requests to others.
 * @param {string} name @param {(viewer: Viewer, context: any) => Promise<void>} body @param {object} [options] of the page
 */
const onPage = (name, body, options = {}) => test(name, { timeout: 180_000 }, async context => {
    const viewer = await Viewer.open(browser, server.link, options);
    try {
        await viewer.rest();
        await body(viewer, context);
        assert.deepEqual(viewer.faults, []);
    } finally {
        await viewer.close();
    }
});

/** The tool's picture for the size of a pane. @param {Viewer} viewer @param {string} verb @param {string[]} options @param {number} [pane] */
async function toolPicture(viewer, verb, options, pane = 0) {
    const { width, height } = await viewer.shown(pane);
    const file = path.join(work, "expected.png");
    await tool(verb, head.file, "--size", `${width}x${height}`, "-o", file, "--quiet", ...options);
    return file;
}

/** @param {Viewer} viewer @param {string} verb @param {string[]} options @param {number} [pane] */
async function expectSame(viewer, verb, options, pane = 0) {
    const { most, mean, size } = await viewer.difference(await toolPicture(viewer, verb, options, pane), pane);
    assert.ok(most <= 1 && mean < 0.01, `${verb} ${options.join(" ")}: most ${most}, mean ${mean} ${size}`);
}

const apart = (/** @type {number[]} */ a, /** @type {number[]} */ b) => Math.hypot(...a.map((v, i) => v - b[i]));

onPage("each mode at rest is the tool's picture, pixel for pixel", async viewer => {
    await expectSame(viewer, "render", []);
    await viewer.page.keyboard.press("m");
    await viewer.page.keyboard.press("l");
    await viewer.rest();
    await expectSame(viewer, "mip", ["--view", "left"]);
    await viewer.update({ window: { centre: 300, width: 800 }, depthCue: 0.5, camera: { right: [-1, 0, 0], down: [0, 1, 0], zoom: 1.5, pan: [0.1, -0.05] } });
    await expectSame(viewer, "mip", ["--view", "superior", "--zoom", "1.5", "--pan", "0.1,-0.05", "--window", "300,800", "--depth-cue", "0.5"]);
    await viewer.page.keyboard.press("t");
    await viewer.update({ window: { centre: 300, width: 800 }, depthCue: null, slab: { thickness: 15, offset: -10 } });
    await expectSame(viewer, "mip", ["--view", "superior", "--zoom", "1.5", "--pan", "0.1,-0.05", "--window", "300,800", "--slab", "15,-10"]);
    await viewer.page.keyboard.press("v");
    await viewer.page.locator("[data-preset=ct-angio]").click();
    await viewer.update({ camera: { right: [0, -1, 0], down: [0, 0, -1], zoom: 1.3, pan: [0, 0] }, shift: 40, opacity: 0.7, light: { azimuth: 20, elevation: 50 }, background: "#203040" });
    await expectSame(viewer, "render", ["--view", "right", "--zoom", "1.3", "--preset", "ct-angio", "--shift", "40", "--opacity", "0.7", "--light", "20,50", "--background", "#203040"]);
    await viewer.update({ mode: "both", projection: "mip", window: null });
    await expectSame(viewer, "mip", ["--view", "right", "--zoom", "1.3"], 0);
    await expectSame(viewer, "render", ["--view", "right", "--zoom", "1.3", "--preset", "ct-angio", "--shift", "40", "--opacity", "0.7", "--light", "20,50", "--background", "#203040"], 1);
});

onPage("box and planes cut as the tool's do, and their handles move them", async viewer => {
    await viewer.update({ box: [0, 1, 0.4, 1, 0, 0.8] });
    await expectSame(viewer, "render", ["--clip-box", "0,1,0.4,1,0,0.8"]);
    await viewer.update({ box: [0, 1, 0, 1, 0, 1], cutting: true });
    const handle = async (/** @type {string} */ name) => {
        const box = await viewer.page.locator(`.handle[aria-label="${name}"]`).boundingBox();
        assert.ok(box !== null, name);
        return { x: box.x + box.width / 2, y: box.y + box.height / 2 };
    };
    const pull = async (/** @type {string} */ name, /** @type {number} */ dx, /** @type {number} */ dy) => {
        const { x, y } = await handle(name);
        await viewer.page.mouse.move(x, y);
        await viewer.page.mouse.down();
        await viewer.page.mouse.move(x + dx, y + dy, { steps: 5 });
        await viewer.page.mouse.up();
        await viewer.page.waitForTimeout(20);
        await viewer.rest();
        return handle(name);
    };
    const head0 = await handle("Face of the box: head");
    const head1 = await pull("Face of the box: head", 15, 60);
    assert.ok(Math.abs(head1.y - head0.y - 60) < 1.5, "the face follows the pointer");
    const { box } = await viewer.state();
    assert.ok(box[5] < 0.9 && box[4] === 0, `${box}`);
    await expectSame(viewer, "render", ["--clip-box", box.join()]);

    await viewer.update({ box: [0, 1, 0, 1, 0, 1] });
    await viewer.page.getByRole("button", { name: "Add a plane" }).click();
    await viewer.rest();
    const tilt0 = await handle("Plane 1: tilt");
    const tilt1 = await pull("Plane 1: tilt", 40, 25);
    assert.ok(apart([tilt1.x, tilt1.y], [tilt0.x + 40, tilt0.y + 25]) < 3, "the tip follows the pointer");
    const turned = (await viewer.state()).planes[0];
    assert.ok(Math.abs(apart(turned.normal, [0, 0, 0]) - 1) < 1e-6 && turned.normal[1] < 0.99, `${turned.normal}`);
    await pull("Plane 1: move", 0, -30);
    const [plane] = (await viewer.state()).planes;
    assert.ok(Math.abs(plane.offset) > 3 && apart(plane.normal, turned.normal) < 1e-9, `${plane.offset}`);
    const [a, b, c, d] = viewer.sent.planes[0];
    await expectSame(viewer, "render", ["--clip", [a, b, c, d].join()]);
});

onPage("each gesture does what it should, and the picture follows", async viewer => {
    const before = await viewer.state();
    const first = await viewer.snapshot();
    // A drag to the right brings what is in front to the right.
    await viewer.drag([0.5, 0.5], [0.6, 0.5]);
    await viewer.rest();
    const turned = await viewer.state();
    assert.ok(turned.camera.right[1] < -0.1 && Math.abs(turned.camera.down[2] + 1) < 1e-6, JSON.stringify(turned.camera));
    assert.ok((await viewer.difference(first)).mean > 0.5);

    await viewer.page.keyboard.press("a");
    const { x, y, width, height } = await viewer.bounds();
    const at = { x: Math.round(x + 0.35 * width), y: Math.round(y + 0.4 * height) };
    await viewer.page.mouse.move(at.x, at.y);
    await viewer.rest();
    const under = async () => {
        const { geometry, width: pixels } = await viewer.shown();
        const scale = pixels / width;
        return geometry.origin.map((/** @type {number} */ o, /** @type {number} */ i) =>
            o + geometry.right[i] * ((at.x - x) * scale - 0.5) + geometry.down[i] * ((at.y - y) * scale - 0.5));
    };
    const pointed = await under();
    await viewer.page.mouse.wheel(0, -400);
    await viewer.page.waitForTimeout(300);
    await viewer.rest();
    assert.ok((await viewer.state()).camera.zoom > 1.3);
    assert.ok(apart(await under(), pointed) < 0.2, "what the pointer shows stays under it");

    for (const [button, key] of /** @type {["left" | "middle", string | null][]} */ ([["middle", null], ["left", "Shift"]])) {
        const pan = (await viewer.state()).camera.pan;
        if (key !== null) {
            await viewer.page.keyboard.down(key);
        }
        await viewer.drag([0.5, 0.5], [0.6, 0.45], { button });
        if (key !== null) {
            await viewer.page.keyboard.up(key);
        }
        const now = (await viewer.state()).camera;
        assert.ok(apart(now.pan, [pan[0] + 0.1, pan[1] - 0.05]) < 0.01 && apart(now.right, before.camera.right) < 1e-9, button);
    }

    await viewer.drag([0.5, 0.5], [0.6, 0.6], { button: "right" });
    const look = await viewer.state();
    assert.ok(look.opacity > 1.1 && look.shift > 10, `${look.opacity} ${look.shift}`);
    await viewer.page.keyboard.press("m");
    await viewer.rest();
    const { window } = await viewer.shown();
    await viewer.drag([0.5, 0.5], [0.6, 0.6], { button: "right" });
    await viewer.rest();
    const wide = (await viewer.state()).window;
    assert.ok(wide.width > window.width && wide.centre > window.centre);
    assert.deepEqual((await viewer.shown()).window, wide);
    assert.equal((await viewer.state()).marks.length, 0, "a drag is no pick");
});

onPage("fingers turn, zoom and move", async viewer => {
    const touch = await viewer.page.context().newCDPSession(viewer.page);
    const { x, y, width, height } = await viewer.bounds();
    const fingers = (/** @type {string} */ type, /** @type {number[][]} */ ...points) => touch.send("Input.dispatchTouchEvent", {
        type: /** @type {any} */ (type), touchPoints: points.map(([px, py], id) => ({ x: x + px * width, y: y + py * height, id })),
    });
    await fingers("touchStart", [0.5, 0.5]);
    await fingers("touchMove", [0.55, 0.5]);
    await fingers("touchMove", [0.6, 0.5]);
    await fingers("touchEnd");
    await viewer.rest();
    const { camera } = await viewer.state();
    assert.ok(camera.right[1] < -0.1 && camera.zoom === 1);
    await fingers("touchStart", [0.4, 0.5], [0.6, 0.5]);
    await fingers("touchMove", [0.35, 0.6], [0.65, 0.6]);
    await fingers("touchMove", [0.3, 0.6], [0.7, 0.6]);
    await fingers("touchEnd");
    await viewer.rest();
    const spread = (await viewer.state()).camera;
    assert.ok(spread.zoom > 1.8 && spread.zoom < 2.2 && spread.pan[1] > 0.05 && apart(spread.right, camera.right) < 1e-9, JSON.stringify(spread));
}, { hasTouch: true });

onPage("a vessel pick lands on the centre line, points carry their value, distances their length", async viewer => {
    const { points } = head.vessels.find((/** @type {any} */ v) => v.name === "right_common_carotid");
    const [px, py, pz, radius] = points[Math.floor((points.length * 3) / 4)];
    const offLine = (/** @type {number[]} */ p) => Math.min(...points.map((/** @type {number[]} */ q) => apart(p, q.slice(0, 3))));
    for (const mode of ["m", "v"]) {
        await viewer.page.keyboard.press(mode);
        await viewer.rest();
        await viewer.page.keyboard.press("2");
        const place = await viewer.place([px, py, pz]);
        // A double click marks no more than a click; one a while later does.
        await viewer.page.waitForTimeout(500);
        await viewer.page.mouse.dblclick(place.x, place.y);
        await viewer.page.locator(".mark.vessel").nth(mode === "m" ? 0 : 1).waitFor();
    }
    const { marks } = await viewer.state();
    assert.equal(marks.length, 2);
    for (const mark of marks) {
        assert.ok(offLine(mark.position) < 0.35 * radius, `${mark.label} is ${offLine(mark.position)} mm off the line of radius ${radius}`);
        assert.ok(["thin", "medium", "high"].includes(mark.vesselClass) && mark.length > radius && mark.length < 4 * radius, JSON.stringify(mark));
    }
    assert.match(await viewer.page.locator("#notices").innerText(), /V2.*mm/);

    // Beside the patient there is none, and it says why.
    const { x, y } = await viewer.bounds();
    await viewer.page.mouse.click(x + 8, y + 100);
    await viewer.page.getByText(/No vessel here: \w+/).waitFor();
    assert.equal((await viewer.state()).marks.length, 2);

    // Two clicks near marks measure between them.
    await viewer.page.keyboard.press("3");
    const a = await viewer.place(marks[0].position);
    await viewer.page.mouse.click(a.x, a.y);
    const other = await viewer.place([px + 30, py, pz + 40]);
    await viewer.page.keyboard.press("1");
    await viewer.page.mouse.click(other.x, other.y);
    await viewer.page.locator(".mark.point").waitFor();
    await viewer.page.keyboard.press("3");
    await viewer.page.mouse.click(a.x, a.y);
    await viewer.page.mouse.click(other.x, other.y);
    await viewer.page.locator(".mark.distance").waitFor();
    const all = (await viewer.state()).marks;
    const distance = all.find((/** @type {any} */ m) => m.kind === "distance");
    const point = all.find((/** @type {any} */ m) => m.kind === "point");
    assert.deepEqual(distance.end, point.position);
    assert.match(await viewer.page.locator(".mark.distance").innerText(), new RegExp(`${apart(distance.position, distance.end).toFixed(1)} mm`));
    assert.ok(Number.isFinite(point.value) && point.value > -500);

    // The list as files.
    const save = async (/** @type {string} */ name) => {
        const [file] = await Promise.all([viewer.page.waitForEvent("download"), viewer.page.getByRole("button", { name }).click()]);
        return fs.readFileSync(await file.path(), "utf8");
    };
    const markups = JSON.parse(await save("Save .mrk.json")).markups[0];
    assert.equal(markups.coordinateSystem, "LPS");
    assert.equal(markups.controlPoints.length, 5);
    assert.ok(apart(markups.controlPoints[0].position, marks[0].position) < 1e-3);
    const csv = (await save("Save CSV")).trim().split("\n");
    assert.equal(csv.length, 6);
    assert.match(csv[0], /x_lps_mm,y_lps_mm,z_lps_mm/);
    assert.ok(csv[1].includes("V1"));
});

onPage("a first visit on a phone picks a vessel and reads its centre, without opening anything", async viewer => {
    // What is said meanwhile stands above the hint.
    await viewer.page.evaluate(async () => (await import("/www/notices.js")).say("A sentence"));
    const [hint, notice] = await Promise.all(["#hint", ".notice"].map(name => viewer.page.locator(name).boundingBox()));
    assert.ok(hint && notice && notice.y + notice.height <= hint.y, JSON.stringify([hint, notice]));
    await viewer.page.getByRole("button", { name: "finds the middle of a vessel" }).tap();
    const { points } = head.vessels.find((/** @type {any} */ v) => v.name === "right_common_carotid");
    const place = await viewer.place(points[Math.floor((points.length * 3) / 4)].slice(0, 3));
    await viewer.page.touchscreen.tap(place.x, place.y);
    const centre = viewer.page.locator(".mark-text").last();
    await centre.waitFor();
    const [mark] = (await viewer.state()).marks;
    const numbers = (await centre.textContent())?.match(/[\d.]+/g)?.map(Number) ?? [];
    assert.ok(mark.kind === "vessel" && apart(numbers, mark.position.map(Math.abs)) < 0.1, `${numbers}, ${mark.position}`);
    const [text, pane] = [await centre.boundingBox(), await viewer.bounds()];
    assert.ok(text && text.x >= pane.x && text.x + text.width <= pane.x + pane.width, JSON.stringify(text));
}, { viewport: { width: 390, height: 844 }, hasTouch: true, isMobile: true });

onPage("window values beside a picture are the picture's own, and letters are read on a light background", async viewer => {
    await viewer.page.keyboard.press("t");
    await viewer.rest();
    // As for a slab whose window the server chose anew.
    await viewer.page.locator("#stage").evaluate(stage =>
        stage.dispatchEvent(new CustomEvent("picture", { detail: { window: { centre: 40, width: 350 } } })));
    const centre = viewer.page.getByRole("spinbutton", { name: /^Centre.*number/ });
    assert.equal(await centre.inputValue(), "40");
    await centre.fill("60");
    await centre.press("Enter");
    await viewer.rest();
    assert.deepEqual((await viewer.shown()).window, { centre: 60, width: 350 });

    await viewer.update({ mode: "render", background: "#f0f0f0" });
    const [red] = (await viewer.page.locator(".legend").first().evaluate(node => getComputedStyle(node).color)).match(/\d+/g) ?? [];
    assert.ok(Number(red) < 60, red);
});

onPage("everything is reached and named without a mouse", async viewer => {
    // Each control has a name.
    const unnamed = (await viewer.page.locator("body").ariaSnapshot()).split("\n")
        .filter(line => /^\s*- (button|slider|checkbox|textbox|combobox|spinbutton|img)\s*(\[|:|$)/.test(line));
    assert.deepEqual(unnamed, []);
    // Tab goes through every control that is shown and back to the start, and shows where it is.
    const reached = new Set();
    for (let i = 0; i < 150; ++i) {
        await viewer.page.keyboard.press("Tab");
        const at = await viewer.page.evaluate(() => {
            const node = document.activeElement;
            if (node === null || node === document.body) {
                return null;
            }
            const style = getComputedStyle(node);
            node.setAttribute("data-reached", "");
            return { visible: style.outlineStyle !== "none" || node.matches(".handle"), what: node.outerHTML.slice(0, 80) };
        });
        if (at !== null) {
            assert.ok(at.visible, `no focus ring on ${at.what}`);
            reached.add(at.what);
        }
    }
    const missed = await viewer.page.evaluate(() =>
        [...document.querySelectorAll("button, input, select, summary, .pane")]
            .filter(n => n.checkVisibility() && !n.hasAttribute("data-reached") && !(/** @type {any} */ (n).disabled))
            .map(n => n.outerHTML.slice(0, 80)));
    assert.deepEqual(missed, []);

    // Turn, zoom, change the mode, pick at the cross.
    await viewer.page.getByRole("button", { name: /^Maximum/ }).click();
    await viewer.page.keyboard.press("ArrowRight");
    assert.notEqual((await viewer.state()).camera.right[1], 0, "arrows turn after a click on the bar");
    await viewer.page.locator(".pane").first().focus();
    for (const key of ["l", "ArrowRight", "+", "+", "m", "2", "Alt+ArrowUp", "1", "Enter"]) {
        await viewer.page.keyboard.press(key);
        await viewer.rest();
    }
    const state = await viewer.state();
    assert.ok(state.mode === "mip" && state.camera.zoom > 1.2 && state.camera.right[0] !== 0 && state.tool === "point");
    await viewer.page.locator(".mark.point").waitFor();
    await viewer.page.keyboard.press("?");
    await viewer.page.locator("dialog[open]").waitFor();
    await viewer.page.keyboard.press("Escape");
    await viewer.page.keyboard.press("Shift+R");
    await viewer.rest();
    assert.deepEqual((await viewer.state()).camera, { right: [1, 0, 0], down: [0, 0, -1], zoom: 1, pan: [0, 0] });
});

onPage("a link shows the same view to somebody else", async viewer => {
    await viewer.update({
        mode: "render", preset: "ct-angio", camera: { right: [0.8, 0.6, 0], down: [0, 0, -1], zoom: 2, pan: [0.1, 0] },
        planes: [{ normal: [0, 1, 0], offset: -20 }], marks: [{ kind: "point", label: "here", position: [1, 2, 3], value: 4 }],
    });
    const expected = await viewer.snapshot();
    const address = await viewer.page.evaluate(async () => (await import("/www/exports.js")).linkAddress());
    const other = await Viewer.open(browser, address);
    await other.rest();
    const { most } = await other.difference(expected);
    assert.ok(most <= 1, `differs by ${most}`);
    assert.deepEqual((await other.state()).marks, (await viewer.state()).marks);
    assert.ok(!other.page.url().includes("token"), other.page.url());
    await other.close();
    // A link that somebody broke shows the start, not an error.
    for (const rubbish of ["#view=AAAA", "#view=eyJjYW1lcmEiOnsicmlnaHQiOlsxLDIsM119LCJib3giOls1XSwicGxhbmVzIjpbeyJub3JtYWwiOlswLDAsMF19XX0", "#x"]) {
        const broken = await Viewer.open(browser, server.link + rubbish);
        await broken.rest();
        assert.equal((await broken.state()).camera.zoom, 1);
        assert.deepEqual(broken.faults, []);
        await broken.close();
    }
});

onPage("a saved picture is the one on the screen", async viewer => {
    await viewer.page.getByText("Take away", { exact: true }).click();
    await viewer.page.getByLabel("Letters and scale in the picture").uncheck();
    const [picture] = await Promise.all([viewer.page.waitForEvent("download"), viewer.page.getByRole("button", { name: "Save picture" }).click()]);
    const { most } = await viewer.difference(await picture.path());
    assert.equal(most, 0);
});

onPage("a movie of a turn is made, and can be cancelled", async (viewer, context) => {
    await viewer.page.getByText("Take away", { exact: true }).click();
    const cancel = viewer.page.getByRole("button", { name: "Cancel" });
    const refused = viewer.page.getByText(/without movies|cannot make films/);
    await viewer.page.getByRole("button", { name: "Save movie" }).click();
    await cancel.or(refused).first().waitFor();
    if (await refused.isVisible()) {
        context.skip("this server was built without an encoder");
        return;
    }
    await cancel.click();
    await viewer.page.getByText("Cancelled").waitFor();
    await viewer.page.locator("label.row", { hasText: "A turn takes" }).locator("select").selectOption("4");
    const [movie] = await Promise.all([viewer.page.waitForEvent("download", { timeout: 150_000 }), viewer.page.getByRole("button", { name: "Save movie" }).click()]);
    assert.ok(fs.statSync(await movie.path()).size > 10_000, movie.suggestedFilename());
});

test("a cut connection comes back with the same scene", { timeout: 120_000 }, async () => {
    const between = await wire(server.port);
    const mapped = await launch(`--host-resolver-rules=MAP localhost:${server.port} 127.0.0.1:${between.port}`);
    try {
        const viewer = await Viewer.open(mapped, server.link.replace("127.0.0.1", "localhost"));
        await viewer.rest();
        await viewer.update({ camera: { right: [0.6, 0.8, 0], down: [0, 0, -1], zoom: 1.7, pan: [0, 0.1] }, mode: "mip" });
        const expected = await viewer.snapshot();
        const { id } = viewer.sent;
        between.cut();
        await viewer.page.getByText("The connection was cut").waitFor();
        // What is changed meanwhile counts too.
        await viewer.page.keyboard.press("o");
        between.mend();
        await viewer.page.locator("#app[data-connection=open]").waitFor();
        await viewer.page.getByText("The connection was cut").waitFor({ state: "detached" });
        await viewer.page.waitForTimeout(200);
        await viewer.rest();
        assert.ok(viewer.sent.id > id);
        assert.equal((await viewer.difference(expected)).most, 0);
    } finally {
        await mapped.close();
        between.close();
    }
});

test("tissues are listed, and look as they are set", { timeout: 120_000 }, async () => {
    const labelled = await serve(head.file, "--labels", head.labels, "--port", "0");
    try {
        const viewer = await Viewer.open(browser, labelled.link);
        await viewer.rest();
        await expectSame(viewer, "render", ["--labels", head.labels]);
        const rows = viewer.page.locator(".tissue");
        assert.equal(await rows.count(), 6);
        await rows.nth(0).getByRole("checkbox").uncheck();
        await rows.nth(1).getByRole("slider").fill("0.3");
        await rows.nth(3).locator("input[type=color]").fill("#20c040");
        await viewer.page.waitForTimeout(300);
        await viewer.rest();
        const looks = viewer.sent.tissues.flatMap((/** @type {any} */ t) =>
            ["--tissue", `${t.label}=${t.visible ? `${t.colour}:${t.opacity}` : "hidden"}`]);
        assert.ok(looks.includes("1=hidden") && looks.includes("4=#20c040:1"), looks.join(" "));
        await expectSame(viewer, "render", ["--labels", head.labels, ...looks]);
        assert.deepEqual(viewer.faults, []);
        await viewer.close();
    } finally {
        await labelled.stop();
    }
});

test("without the token there is nothing", { timeout: 60_000 }, async () => {
    const { origin } = new URL(server.link);
    for (const address of ["/", "/?token=0123456789abcdef0123456789abcdef", "/www/main.js", "/api/series", "/api/presets"]) {
        const answer = await fetch(origin + address, { redirect: "manual" });
        assert.equal(answer.status, 403, address);
        assert.ok((await answer.text()).length < 200, address);
        assert.equal(answer.headers.get("set-cookie"), null);
    }
    const context = await browser.newContext();
    const page = await context.newPage();
    await page.goto(`${origin}/?token=wrong`);
    const outcome = await page.evaluate(() => new Promise(resolve => {
        const socket = new WebSocket(`ws://${location.host}/socket`);
        socket.onopen = () => resolve("open");
        socket.onclose = () => resolve("refused");
    })).catch(() => "refused");
    assert.equal(outcome, "refused");
    await context.close();
});

test("the start page lists the series of a folder, and opens the one that is chosen", { timeout: 120_000 }, async () => {
    const folder = path.join(work, "studies");
    fs.mkdirSync(folder);
    for (const [name, kind] of [["first", "head"], ["second", "bricks"]]) {
        await tool("phantom", kind, "--size", "96,96,72", "-o", path.join(folder, `${name}.mha`), "--quiet");
    }
    const many = await serve(folder, "--show-names", "--budget", "250", "--port", "0");
    try {
        const viewer = await Viewer.open(browser, many.link, { viewport: { width: 1100, height: 700 }, colorScheme: "dark" });
        const cards = viewer.page.locator(".card");
        await cards.nth(1).waitFor();
        assert.equal(await cards.count(), 2);
        await viewer.page.locator(".card img.there").nth(1).waitFor();
        await viewer.page.screenshot({ path: path.join(pictures, "start-dark.png") });
        await cards.first().focus();
        await viewer.page.keyboard.press("Enter");
        await viewer.rest();
        const title = await viewer.page.locator("#title").innerText();
        assert.match(title, /first|second/);
        assert.equal(await viewer.page.getByRole("slider", { name: "Time for a picture", includeHidden: true }).inputValue(), "250");
        await viewer.page.getByRole("button", { name: "All series" }).click();
        await cards.nth(1).click();
        await viewer.page.waitForFunction(old => document.querySelector("#title")?.textContent !== old, title);
        await viewer.rest();
        assert.deepEqual(viewer.faults, []);
        await viewer.close();
    } finally {
        await many.stop();
    }
});

test("a page that comes before its only series is found opens it", { timeout: 60_000 }, async () => {
    const context = await browser.newContext();
    const page = await context.newPage();
    const series = { id: "s1", modality: "CT", dims: [1, 1, 1], thumbnail: false };
    let asked = 0;
    await page.route("**/api/series", (/** @type {any} */ route) => route.fulfill({ json: { scanning: ++asked < 3, series: [series] } }));
    // The server has not found it when it greets.
    await page.routeWebSocket("**/socket", (/** @type {any} */ socket) => {
        const real = socket.connectToServer();
        real.onMessage((/** @type {any} */ message) =>
            socket.send(String(message).includes('"hello"') ? JSON.stringify({ ...JSON.parse(String(message)), default: null }) : message));
    });
    await page.goto(server.link);
    await page.locator("#start:not([hidden])").waitFor();
    await page.locator("#start").waitFor({ state: "hidden" });
    await page.locator(".pane .kind").first().waitFor();
    await context.close();
});

test("turning for a while leaves memory flat and the newest picture on the screen", { timeout: 400_000 }, async () => {
    const viewer = await Viewer.open(browser, server.link);
    await viewer.rest();
    const memory = await turnFor(viewer, server, 20);
    assert.ok(growth(memory) < 32 << 20, memory.map(bytes => bytes >> 20).join(" "));
    assert.deepEqual(viewer.faults, []);
    await viewer.close();
});

test("wide and narrow, light and dark: nothing is cut off", { timeout: 400_000 }, async () => {
    for (const [name, width, height, mobile] of /** @type {[string, number, number, boolean][]} */ ([["wide", 1360, 860, false], ["middle", 900, 700, false], ["narrow", 400, 800, true]])) {
        for (const colorScheme of /** @type {const} */ (["dark", "light"])) {
            const viewer = await Viewer.open(browser, server.link, { viewport: { width, height }, colorScheme, hasTouch: mobile, isMobile: mobile, deviceScaleFactor: mobile ? 2 : 1 });
            await viewer.rest();
            const { width: pixels } = await viewer.shown();
            assert.equal(pixels, Math.round((await viewer.bounds()).width * (mobile ? 2 : 1)), "one pixel of the picture on one of the screen");
            const cut = await viewer.page.evaluate(() => [...document.querySelectorAll("#bar *, #side button, #side label, #side .name")]
                .filter(n => n.checkVisibility() && n.scrollWidth > n.clientWidth + 1 && getComputedStyle(n).display !== "inline" && getComputedStyle(n).textOverflow !== "ellipsis")
                .map(n => n.outerHTML.slice(0, 100)));
            assert.deepEqual(cut, []);
            assert.ok(await viewer.page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
            await viewer.page.locator(".presets img.there").nth(5).waitFor({ state: "attached", timeout: 120_000 });
            await viewer.page.screenshot({ path: path.join(pictures, `${name}-${colorScheme}.png`) });
            if (mobile) {
                await viewer.page.getByRole("button", { name: "Controls" }).click();
                await viewer.rest();
                await viewer.page.screenshot({ path: path.join(pictures, `${name}-controls-${colorScheme}.png`) });
            }
            assert.deepEqual(viewer.faults, []);
            await viewer.close();
        }
    }
});
