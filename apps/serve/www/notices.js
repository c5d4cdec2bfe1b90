// @ts-check
// Short sentences over the picture; screen readers hear them.
import { byId, html } from "./dom.js";

const shownMs = 6000;
/** @type {Map<string, HTMLElement>} */
const standing = new Map();

/** Says something that goes away by itself. @param {string} text @param {"status" | "error"} [kind] */
export function say(text, kind = "status") {
    const notice = html("p", { class: `notice ${kind}`, ...(kind === "error" ? { role: "alert" } : {}) }, text);
    const notices = byId("notices");
    notices.append(notice);
    while (notices.childElementCount > 3) {
        notices.firstElementChild?.remove();
    }
    setTimeout(() => notice.remove(), shownMs);
}

/**
 * Says something that stays until it is taken back with null.
 * @param {string} name @param {string | null} text @param {{label: string, act: () => void}} [button]
 */
export function stand(name, text, button) {
    standing.get(name)?.remove();
    standing.delete(name);
    if (text !== null) {
        const notice = html("p", { class: "notice" }, text);
        if (button !== undefined) {
            notice.append(html("button", { type: "button", onclick: button.act }, button.label));
        }
        standing.set(name, notice);
        byId("standing").append(notice);
    }
}
