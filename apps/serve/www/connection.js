// @ts-check
// The socket to the server: comes back by itself after a cut, and keeps the questions that wait for an answer.
import { parsePicture } from "./protocol.js";

/** @typedef {{type: string, request?: number, text?: string, [field: string]: any}} Message */
/**
 * @typedef {object} Waiting
 * @property {string} answer type of the message that ends it
 * @property {(message: Message) => void} resolve
 * @property {(error: Error) => void} reject
 * @property {(fraction: number) => void} [onProgress]
 */

const firstDelayMs = 400;
const longestDelayMs = 8000;

export class Connection {
    /** @type {(message: Message) => void} messages that are no answers */
    onMessage = () => {};
    /** @type {(picture: ReturnType<typeof parsePicture>) => void} */
    onPicture = () => {};
    /** @type {(status: "open" | "lost" | "refused") => void} */
    onStatus = () => {};

    /** @type {WebSocket | null} */
    #socket = null;
    #delayMs = firstDelayMs;
    #timer = 0;
    #requests = 0;
    /** @type {Map<number, Waiting>} */
    #waiting = new Map();

    /** Connects, and again after each cut. */
    connect() {
        clearTimeout(this.#timer);
        const url = new URL("/socket", location.href);
        url.protocol = url.protocol === "https:" ? "wss:" : "ws:";
        const socket = new WebSocket(url);
        socket.binaryType = "arraybuffer";
        this.#socket = socket;
        socket.onopen = () => {
            this.#delayMs = firstDelayMs;
            this.onStatus("open");
        };
        socket.onmessage = event => {
            if (typeof event.data === "string") {
                this.#receive(JSON.parse(event.data));
            } else {
                this.onPicture(parsePicture(event.data));
            }
        };
        socket.onclose = () => this.#lost();
    }

    get isOpen() {
        return this.#socket?.readyState === WebSocket.OPEN;
    }

    /** Tries at once instead of after the pause. */
    hurry() {
        if (this.#socket?.readyState === WebSocket.CLOSED) {
            this.connect();
        }
    }

    /** Sends a message, or drops it while there is no connection. @param {object} message */
    send(message) {
        if (this.isOpen) {
            this.#socket?.send(JSON.stringify(message));
        }
    }

    /**
     * Sends a request; its answer is a message of type `answer`.
     * @param {object} message @param {string} answer @param {(fraction: number) => void} [onProgress]
     * @returns {{answer: Promise<Message>, cancel: () => void}}
     */
    ask(message, answer, onProgress) {
        const request = ++this.#requests;
        const promise = new Promise((resolve, reject) => {
            if (!this.isOpen) {
                reject(new Error("There is no connection to the server."));
                return;
            }
            this.#waiting.set(request, { answer, resolve, reject, onProgress });
            this.send({ ...message, request });
        });
        return { answer: promise, cancel: () => this.#cancel(request) };
    }

    /** @param {number} request */
    #cancel(request) {
        const waiting = this.#waiting.get(request);
        if (waiting !== undefined) {
            this.#waiting.delete(request);
            this.send({ type: "cancel", request });
            waiting.reject(new DOMException("cancelled", "AbortError"));
        }
    }

    /** @param {Message} message */
    #receive(message) {
        const waiting = message.request === undefined ? undefined : this.#waiting.get(message.request);
        if (message.request === undefined || (waiting === undefined && message.type === "error")) {
            this.onMessage(message);
        } else if (message.type === "progress") {
            waiting?.onProgress?.(message.fraction);
        } else if (message.type === waiting?.answer) {
            this.#waiting.delete(message.request);
            waiting.resolve(message);
        } else if (message.type === "error") {
            this.#waiting.delete(message.request);
            waiting?.reject(new Error(message.text));
        }
    }

    async #lost() {
        for (const waiting of this.#waiting.values()) {
            waiting.reject(new Error("The connection was cut."));
        }
        this.#waiting.clear();
        this.onStatus("lost");
        this.#timer = window.setTimeout(() => this.connect(), this.#delayMs * (0.75 + 0.5 * Math.random()));
        this.#delayMs = Math.min(longestDelayMs, this.#delayMs * 2);
        // A server that answers but refuses was started anew: its links are new too.
        const status = await fetch("/api/presets").then(answer => answer.status, () => 0);
        if (status === 403) {
            clearTimeout(this.#timer);
            this.onStatus("refused");
        }
    }
}
