// @ts-check
// Elements in one call.

/** @typedef {Record<string, unknown>} Properties "on..." listens, names with '-' and role, for, list become attributes, the rest properties */

/** @param {Element} node @param {Properties} properties @param {(Node | string)[]} children */
function furnish(node, properties, children) {
    for (const [key, value] of Object.entries(properties)) {
        if (key.startsWith("on")) {
            node.addEventListener(key.slice(2), /** @type {EventListener} */ (value));
        } else if (key.includes("-") || key === "role" || key === "for" || node instanceof SVGElement) {
            node.setAttribute(key, String(value));
        } else if (key === "class") {
            node.className = String(value);
        } else {
            Object.assign(node, { [key]: value });
        }
    }
    node.append(...children);
}

/**
 * @template {keyof HTMLElementTagNameMap} Tag
 * @param {Tag} tag @param {Properties} [properties] @param {(Node | string)[]} children
 * @returns {HTMLElementTagNameMap[Tag]}
 */
export function html(tag, properties = {}, ...children) {
    const node = document.createElement(tag);
    furnish(node, properties, children);
    return node;
}

/**
 * @template {keyof SVGElementTagNameMap} Tag
 * @param {Tag} tag @param {Properties} [properties] @param {(Node | string)[]} children
 * @returns {SVGElementTagNameMap[Tag]}
 */
export function svg(tag, properties = {}, ...children) {
    const node = document.createElementNS("http://www.w3.org/2000/svg", tag);
    furnish(node, properties, children);
    return node;
}

/** The element of this id, which index.html has. @param {string} id @returns {HTMLElement} */
export function byId(id) {
    const node = document.getElementById(id);
    if (node === null) {
        throw new Error(`index.html lacks #${id}`);
    }
    return node;
}

/** @param {Element} node @param {Record<string, string | number>} attributes */
export function setAttributes(node, attributes) {
    for (const [key, value] of Object.entries(attributes)) {
        node.setAttribute(key, String(value));
    }
}
