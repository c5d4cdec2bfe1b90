// @ts-check
// What page and server say to each other; docs/viewer-protocol.md says what each field means.
import { dot } from "./vectors.js";

/** @typedef {import("./vectors.js").Vec3} Vec3 */
/** @typedef {import("./state.js").State} State */
/** @typedef {"mip" | "slab" | "render"} PaneMode */
/** @typedef {{origin: Vec3, right: Vec3, down: Vec3, towardViewer: Vec3}} Geometry */
/** @typedef {{centre: number, width: number}} Window */
/**
 * @typedef {object} PictureHeader
 * @property {number} id of the scene that it shows
 * @property {number} pane
 * @property {boolean} final nothing better follows
 * @property {"jpeg" | "png"} format
 * @property {number} width of the pane, in pixels
 * @property {number} height
 * @property {number} drawMs
 * @property {number} encodeMs
 * @property {Window | null} window
 * @property {Geometry} geometry
 * @property {string} quality
 */
/**
 * @typedef {object} Volume
 * @property {string} series
 * @property {string} modality
 * @property {Vec3} dims
 * @property {Vec3} spacing
 * @property {number[]} indexToPatient 3 rows of 4
 * @property {Vec3} middle
 * @property {number} diameter
 * @property {[number, number]} range
 * @property {string} unit
 * @property {Window} window
 * @property {string} preset
 * @property {{label: number, name: string, colour: string | null}[]} tissues
 * @property {boolean} complete
 */
/** @typedef {{found: boolean, class: string, reason: string, centre?: Vec3, length?: number}} VesselFound */
/**
 * @typedef {object} Picked
 * @property {number} request
 * @property {number} pane
 * @property {"shown" | "misses" | "nothing"} outcome
 * @property {string} text
 * @property {Vec3} [position]
 * @property {Vec3} [voxel]
 * @property {number} [value]
 * @property {VesselFound} [vessel]
 */
/** @typedef {{name: string, description: string, modality: string}} Preset */
/**
 * @typedef {object} Hello
 * @property {string} version
 * @property {string} token
 * @property {string} instructionSet
 * @property {number} threads
 * @property {Preset[]} presets
 * @property {number} budgetMs for a moving picture, unless the page says otherwise
 * @property {Record<string, number>} limits
 * @property {string | null} default
 */
/** @typedef {{id: string, folder: string, modality: string, description?: string, dims: Vec3, thumbnail: boolean}} Series */

/** Fewest and most pixels that a pane has each way. */
export const paneEdge = { least: 16, most: 2048 };

/** The panes of a state. @param {State} state @returns {PaneMode[]} */
export const paneModes = state => (state.mode === "both" ? [state.projection, "render"] : [state.mode]);

/**
 * The scene of a state, without its id.
 * @param {State} state @param {Volume} volume @param {{width: number, height: number}[]} sizes of the panes
 */
export function sceneOf(state, volume, sizes) {
    const { camera, window, slab, depthCue, preset, shift, opacity, lit, light, background, box } = state;
    return {
        type: "scene",
        budgetMs: state.budgetMs,
        panes: paneModes(state).map((mode, i) => ({ mode, width: sizes[i].width, height: sizes[i].height })),
        camera,
        window,
        slab,
        depthCue,
        preset,
        shift,
        opacity,
        lit,
        light,
        background,
        box,
        planes: state.planes.map(p => [...p.normal, -dot(p.normal, volume.middle) - p.offset]),
        tissues: state.tissues,
    };
}

/**
 * Takes a binary message apart; throws when it is not one.
 * @param {ArrayBuffer} message @returns {{header: PictureHeader, image: Blob}}
 */
export function parsePicture(message) {
    const headerLength = new DataView(message).getUint32(0, true);
    const header = JSON.parse(new TextDecoder().decode(new Uint8Array(message, 4, headerLength)));
    return { header, image: new Blob([new Uint8Array(message, 4 + headerLength)], { type: `image/${header.format}` }) };
}
