// jactor.mjs - messages over named endpoints in plain Node, from docs/wire-format.md.
import { spawnSync } from "node:child_process";
import fs from "node:fs";
import net from "node:net";

const MAX = 1048576; // bytes in a message, and frames
const { O_RDWR, O_NOFOLLOW, O_NOATIME, O_NONBLOCK } = fs.constants;

function open(endpoint) {
  const [, transport, name] = /^[@>]?(ipc|inproc):\/\/([^,]+)$/.exec(endpoint) ?? [];
  if (!name) throw new TypeError(`${endpoint} is not an endpoint: name it as ipc://NAME`);
  const directory = "/var/run/jactor";
  const path = `${directory}/J${transport}_${name.replace(/[/\\]/g, "_")}`;
  if (!fs.existsSync(directory)) {
    fs.mkdirSync(directory);
    fs.chmodSync(directory, 0o2777);
  }
  if (!fs.existsSync(path)) spawnSync("mkfifo", ["-m", "0666", path]); // Node has no mkfifo
  const fd = fs.openSync(path, O_RDWR | O_NOFOLLOW | O_NOATIME | O_NONBLOCK);
  if (fs.fstatSync(fd).isFIFO()) return fd;
  fs.closeSync(fd);
  throw new Error(`${path} is not a FIFO: remove it`);
}

// The header at `at`: its kind, size or value, and where the payload begins; undefined while
// it is incomplete.
function header(data, at) {
  const lead = data[at];
  const more = lead & 0x80 ? (lead >> 6) & 1 : [0, 1, 2, 4][(lead >> 4) & 3];
  const end = at + 1 + more;
  if (end > data.length) return undefined;
  const tail = more ? data.readUIntBE(at + 1, more) : 0;
  if (lead & 0x80) return { kind: "signal", number: more ? tail : lead & 63, end };
  const number = more > 1 ? tail : more ? 16 + 256 * (lead & 15) + tail : lead & 15;
  if (number > MAX) throw new Error(`damage: a size of ${number} bytes`);
  return { kind: lead & 0x40 ? "announce" : "frame", number, end };
}

// The message or signal at `at`, and where it ends; undefined while it is incomplete.
function decode(data, at) {
  const first = header(data, at);
  if (!first) return undefined;
  if (first.kind === "signal") return { signal: first.number, end: first.end };
  const frames = [];
  let [end, left] = [first.kind === "announce" ? first.end : at, first.number];
  while (left > 0 || (first.kind === "frame" && frames.length === 0)) {
    const next = header(data, end);
    if (!next) return undefined;
    if (next.kind !== "frame" || next.number > left || frames.length === MAX) throw new Error("damage: out of step");
    end = next.end + next.number;
    if (end > data.length) return undefined;
    frames.push(data.subarray(next.end, end));
    left -= next.number;
  }
  return { frames, end };
}

// The messages and signals of an endpoint, for ever. What was read ahead is lost when the loop
// ends.
export async function* pull(endpoint) {
  let data = Buffer.alloc(0);
  for await (const chunk of new net.Socket({ fd: open(endpoint), readable: true, writable: false })) {
    data = Buffer.concat([data, chunk]);
    let at = 0;
    for (let next; (next = decode(data, at)); at = next.end) yield next;
    data = data.subarray(at);
  }
}

function size(kind, number) {
  const [lead, bytes] = number < 16 ? [number, 0] : number < 4112 ? [(0x1000 + number - 16) >> 8, 1]
    : number < 65536 ? [0x20, 2] : [0x30, 4];
  const made = Buffer.from([kind | lead, 0, 0, 0, 0].slice(0, 1 + bytes));
  if (bytes) made.writeUIntBE(bytes === 1 ? (number - 16) & 255 : number, 1, bytes);
  return made;
}

// Sends to an endpoint. Wait for each send before the next: then a message of at most 4,096
// bytes on the wire is one write. Larger ones stay whole only if nobody else writes.
export function push(endpoint) {
  const socket = new net.Socket({ fd: open(endpoint), readable: false, writable: true });
  const write = (bytes) => new Promise((done, failed) => socket.write(bytes, (error) => error ? failed(error) : done()));
  return {
    async send(...frames) {
      const payloads = frames.map((frame) => Buffer.from(frame));
      const total = payloads.reduce((sum, payload) => sum + payload.length, 0);
      if (total > MAX) throw new RangeError(`${total} bytes: a message has at most ${MAX}`);
      if (payloads.length > 1 && !payloads.at(-1).length) throw new RangeError("the last of several frames is empty");
      const parts = payloads.flatMap((payload) => [size(0, payload.length), payload]);
      await write(Buffer.concat(payloads.length === 1 ? parts : [size(0x40, total), ...parts]));
    },
    async signal(value) {
      if (!(value >= 0 && value <= 255)) throw new RangeError(`a signal is 0 to 255, not ${value}`);
      await write(Buffer.from(value < 64 ? [0x80 | value] : [0xc0, value]));
    },
    close: () => socket.destroy(),
  };
}
