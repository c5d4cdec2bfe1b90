// @ts-check
// The panel's part for what is cut away: a box along the patient and free planes.
import { html } from "./dom.js";
import { button, section, slider } from "./fields.js";
import { addPlane, changePlane, faceName, withFace } from "./handles.js";
import { mostPlanes } from "./link.js";
import { into } from "./camera.js";
import { startState, store } from "./state.js";
import { scale } from "./vectors.js";
import { letters, open } from "./volume.js";

/** @param {number} face */
function faceSlider(face) {
    const field = slider({
        label: "", unit: "%", step: 0.5, range: () => [0, 100],
        get: s => 100 * (face % 2 === 0 ? s.box[face] : 1 - s.box[face]),
        set: value => ({ box: withFace(store.state.box, face, face % 2 === 0 ? value / 100 : 1 - value / 100) }),
    });
    // The names are known when a volume is open.
    let named = "";
    store.subscribe(() => {
        const { volume } = open;
        if (volume !== null && named !== volume.series) {
            named = volume.series;
            const name = `Cut from the ${faceName(volume, face)}`;
            const text = field.querySelector(".name");
            const [number, bar] = field.querySelectorAll("input");
            if (text !== null) {
                text.textContent = name;
            }
            bar.setAttribute("aria-label", `${name}, percent`);
            number.setAttribute("aria-label", `${name}, percent, as a number`);
        }
    });
    return field;
}

/** @param {number} index */
function planeFields(index) {
    const reach = () => Math.round((open.volume?.diameter ?? 100) / 2);
    const offset = slider({
        label: `Plane ${index + 1}`, unit: "mm", step: 0.5, range: () => [-reach(), reach()],
        get: s => s.planes[index]?.offset ?? 0,
        set: value => ({ planes: store.state.planes.map((p, i) => (i === index ? { ...p, offset: value } : p)) }),
    });
    const facing = html("span", { class: "quiet" });
    const flip = () => {
        const plane = store.state.planes[index];
        changePlane(index, { normal: scale(plane.normal, -1), offset: -plane.offset });
    };
    const remove = () => store.update({ planes: store.state.planes.filter((_, i) => i !== index) });
    const fields = html("div", { class: "plane" }, offset, html("div", { class: "buttons" }, facing,
        button("To me", () => changePlane(index, { normal: into(store.state.camera) }), `Plane ${index + 1}: cuts what is nearer than it`),
        button("Flip", flip, `Plane ${index + 1}: keeps what it took away`),
        button("Remove", remove, `Remove plane ${index + 1}`)));
    store.subscribe(() => {
        const plane = store.state.planes[index];
        fields.hidden = plane === undefined;
        facing.textContent = plane === undefined ? "" : `keeps ${letters(plane.normal)}`;
    });
    return fields;
}

export function cutSection() {
    const add = button("Add a plane", addPlane, "A plane through the middle that takes away what is nearer to you");
    const part = section("Cut", false,
        html("p", { class: "quiet" }, "Drag the dots in the picture, or:"),
        ...[0, 1, 2, 3, 4, 5].map(faceSlider),
        ...Array.from({ length: mostPlanes }, (_, i) => planeFields(i)),
        html("div", { class: "buttons" }, add,
            button("Cut nothing", () => store.update({ box: startState().box, planes: [] }))));
    // Handles are in the picture while this part is open.
    part.addEventListener("toggle", () => store.update({ cutting: part.open }));
    store.subscribe(() => {
        part.open = store.state.cutting;
        add.disabled = store.state.planes.length >= mostPlanes;
    });
    return part;
}
