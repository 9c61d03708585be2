// What the page says about a call: a title, a sentence and, where it is not "Call again", the label of the button
// that goes on from there.

export const IDLE = ["Choose a camera", "Its live picture appears here."];
export const NO_CAMERA = ["No camera is online", "Its live picture appears here once you have chosen one."];
export const HUNG_UP = ["Call ended", "You hung up."];
export const NO_LINK = ["Not connected", "There is no link to the server at the moment. Call again once it is back."];

export function calling(serialCode) {
  return [`Calling ${serialCode}…`, ""];
}

export function connecting(serialCode) {
  return [`Connecting to ${serialCode}…`, "The camera answered. Waiting for its picture."];
}

export function live(serialCode) {
  return [`${serialCode} is live`, ""];
}

export function interrupted(serialCode, online) {
  const why = online ? "No picture is arriving." : `${serialCode} is offline.`;
  return ["Picture interrupted", `${why} Waiting for it to come back…`];
}

export function backOnline(serialCode) {
  return [`${serialCode} is online again`, "Call it to go on watching."];
}

export function permitCodeNeeded(serialCode) {
  return ["Permit code needed", `${serialCode} can be watched with its permit code only.`, "Enter the code"];
}

// reason: as Call gives it at its end.
export function ended(serialCode, reason, online) {
  if (reason === "unanswered") return [`${serialCode} does not answer`, "Check that it is running, then call again."];
  if (reason === "unconnected") {
    return ["No picture arrived", `${serialCode} answered, but no path between it and this browser was found.`];
  }
  if (reason === "lost") {
    const why = online ? "The connection to the camera broke." : `${serialCode} went offline.`;
    return ["Picture lost", why];
  }
  if (reason === "closed") return hungUp(serialCode);
  return ["The call failed", reason.message];
}

export function hungUp(serialCode, why) {
  return ["Call ended", why || `${serialCode} ended the call.`];
}

// error: the server's answer to a call request.
export function refused(serialCode, error) {
  if (error.code === 404) return [`${serialCode} is offline`, "It appears in the list when it is back."];
  if (error.code === 429) return ["Too many calls", "Too many viewers or calls are open at once. Try again later."];
  return ["The call was refused", String(error.message ?? "")];
}

export function signInProblem({ code, message }) {
  if (code === 401) return "Unknown account key or wrong secret.";
  return `Signing in was refused: ${message}`;
}

export function numbers({ width, height, framesPerSecond, bitsPerSecond, roundTripMs }) {
  const parts = [];
  if (width) parts.push(`${width}×${height}`);
  if (framesPerSecond !== undefined) parts.push(`${Math.round(framesPerSecond)} fps`);
  if (bitsPerSecond !== undefined) parts.push(`${Math.round(bitsPerSecond / 1_000)} kbit/s`);
  if (roundTripMs !== undefined) parts.push(`RTT ${Math.max(1, Math.round(roundTripMs))} ms`);
  return parts.join(" · ");
}
