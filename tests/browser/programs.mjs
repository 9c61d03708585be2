// The real server and camera as processes, each ended with the test that started it, and a front door that
// stays where it is while the server behind it goes and comes back.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm } from "node:fs/promises";
import net from "node:net";
import { tmpdir } from "node:os";
import path from "node:path";
import { createInterface } from "node:readline";

const BUILD = process.env.SIGNALCONN_BUILD_DIR;
if (!BUILD) throw new Error("SIGNALCONN_BUILD_DIR must name the build directory");

export const ACCOUNT = { key: "demo", secret: "demo" };

class Program {
  #process;
  #ended;

  constructor(file, options) {
    this.#process = spawn(path.join(BUILD, file), options, { stdio: ["ignore", "pipe", "inherit"] });
    this.#ended = once(this.#process, "exit");
    this.lines = createInterface({ input: this.#process.stdout });
  }

  // Waits for a line of its output that matches, and returns the match.
  line(pattern) {
    return new Promise((resolve, reject) => {
      this.lines.on("line", (line) => {
        const match = line.match(pattern);
        if (match) resolve(match);
      });
      this.lines.once("close", () => reject(new Error(`the program ended without ${pattern}`)));
    });
  }

  // As Ctrl-C does.
  async interrupt() {
    this.#process.kill("SIGINT");
    await this.#ended;
  }

  // As a power cut does.
  async kill() {
    this.#process.kill("SIGKILL");
    await this.#ended;
  }
}

export class Server extends Program {
  static async start() {
    const server = new Server("src/server/signalconn-server", ["--port", "0"]);
    [, server.url] = await server.line(/listening on (http:\S+)/);
    server.port = Number(new URL(server.url).port);
    return server;
  }

  // The page's address with an account in its fragment.
  signedIn(more = "") {
    return signedIn(this.url, more);
  }
}

export function signedIn(url, more = "") {
  return `${url}#key=${ACCOUNT.key}&secret=${ACCOUNT.secret}${more}`;
}

export class Camera extends Program {
  // Plays the sample media. Options: permitCode, audioOut: the file for viewers' speech.
  static start(port, serialCode, { permitCode, audioOut } = {}) {
    const options = ["--test-data", path.join(BUILD, "sample-media"), "--port", String(port), "--sn", serialCode];
    if (permitCode !== undefined) options.push("--must-permit", "1", "--permit-code", permitCode);
    if (audioOut !== undefined) options.push("--audio-out", audioOut);
    return new Camera("src/camera/signalconn-camera", options);
  }
}

// Passes connections on to whatever server stands behind it at the moment, and none while there is none.
export class FrontDoor {
  #listener = net.createServer((outside) => this.#connect(outside));
  #sockets = new Set();
  #behind = 0;

  static async open() {
    const door = new FrontDoor();
    door.#listener.listen(0, "127.0.0.1");
    await once(door.#listener, "listening");
    door.port = door.#listener.address().port;
    door.url = `http://127.0.0.1:${door.port}/`;
    return door;
  }

  leadTo(server) {
    this.#behind = server.port;
  }

  leadNowhere() {
    this.#behind = 0;
    for (const socket of this.#sockets) socket.destroy();
  }

  close() {
    this.leadNowhere();
    this.#listener.close();
  }

  #connect(outside) {
    if (this.#behind === 0) {
      outside.destroy();
      return;
    }
    const inside = net.connect(this.#behind, "127.0.0.1");
    this.#join(outside, inside);
    this.#join(inside, outside);
  }

  #join(from, to) {
    this.#sockets.add(from);
    from.pipe(to);
    from.on("error", () => to.destroy());
    from.on("close", () => {
      this.#sockets.delete(from);
      to.destroy();
    });
  }
}

export async function temporaryDirectory() {
  const directory = await mkdtemp(path.join(tmpdir(), "signalconn-browser-"));
  return { directory, remove: () => rm(directory, { recursive: true }) };
}
