// messages.mjs - endpoints from the command line, in plain Node.
//
//   node messages.mjs pull ENDPOINT [COUNT]    prints messages as lines of JSON
//   node messages.mjs push ENDPOINT FRAME...   sends a message
//   node messages.mjs signal ENDPOINT VALUE    sends a signal
//
// When the last process closes an endpoint, what waits in it is lost: start the pull first.
import { pull, push } from "./jactor.mjs";

const [command, endpoint, ...rest] = process.argv.slice(2);
if (command === "pull") {
  let left = Number(rest[0] ?? Infinity);
  for await (const { signal, frames } of pull(endpoint)) {
    console.log(JSON.stringify(frames ? { frames: frames.map(String) } : { signal }));
    if (--left === 0) break;
  }
} else {
  const to = push(endpoint);
  await (command === "signal" ? to.signal(Number(rest[0])) : to.send(...rest));
  to.close();
}
