// Hold to talk: a button, and the microphone behind it. The microphone is asked for at the first press and
// stays open, unsent, until the call ends, so that later presses are heard from the first syllable.

const PROBLEMS = {
  NotAllowedError: "The microphone was refused. Allow it in the browser's settings for this page to talk.",
  NotFoundError: "No microphone was found. Watching and listening work without one.",
  NotReadableError: "The microphone is in use by another program.",
};

export class TalkButton {
  #button;
  #hint;
  #send = null;
  #track = null;
  #opening = false;
  #held = false;

  // hint: where the state is said in words.
  constructor(button, hint) {
    this.#button = button;
    this.#hint = hint;
    this.#listenToPointer();
    this.#listenToKeys();
    // A click that no pointer and no key stands behind comes from an assistive technology, which cannot
    // hold a button: it switches.
    button.addEventListener("click", ({ detail }) => {
      if (detail === 0) this.#held ? this.#release() : this.#press();
    });
    window.addEventListener("blur", () => this.#release());
    document.addEventListener("visibilitychange", () => this.#release());
  }

  // A call is up. send(track) sends a microphone track to the camera, send(null) stops it.
  enable(send) {
    if (this.#send !== null) return;
    this.#send = send;
    if (navigator.mediaDevices === undefined) {
      this.#say("Talking needs a secure page (https). Watching and listening work.");
      return;
    }
    this.#button.disabled = false;
    this.#sayHowTo();
  }

  // The call is over: closes the microphone.
  disable() {
    this.#release();
    this.#send = null;
    this.#track?.stop();
    this.#track = null;
    this.#button.disabled = true;
    this.#say("");
  }

  #listenToPointer() {
    const button = this.#button;
    button.addEventListener("pointerdown", (event) => {
      if (event.button !== 0) return;
      button.setPointerCapture(event.pointerId);
      this.#press();
    });
    for (const end of ["pointerup", "pointercancel", "lostpointercapture"]) {
      button.addEventListener(end, () => this.#release());
    }
    // A long touch is speech here, not a question for a menu.
    button.addEventListener("contextmenu", (event) => event.preventDefault());
  }

  #listenToKeys() {
    const isTalkKey = ({ key }) => key === " " || key === "Enter";
    this.#button.addEventListener("keydown", (event) => {
      if (!isTalkKey(event)) return;
      event.preventDefault();
      if (!event.repeat) this.#press();
    });
    this.#button.addEventListener("keyup", (event) => {
      if (!isTalkKey(event)) return;
      event.preventDefault();
      this.#release();
    });
    this.#button.addEventListener("blur", () => this.#release());
  }

  async #press() {
    if (this.#send === null || this.#button.disabled) return;
    this.#held = true;
    if (this.#track === null && !(await this.#openMicrophone())) return;
    if (this.#held) this.#show(true, "Talking. Release to listen.");
    else this.#say("The microphone is ready. Hold the button and speak.");
  }

  #release() {
    if (!this.#held) return;
    this.#held = false;
    if (this.#button.getAttribute("aria-pressed") !== "true") return;
    this.#show(false, "");
    this.#sayHowTo();
  }

  // Whether there is a microphone now, and still a call to use it in.
  async #openMicrophone() {
    if (this.#opening) return false;
    this.#opening = true;
    this.#say("Allow the microphone when the browser asks.");
    const call = this.#send;
    try {
      const constraints = { audio: { echoCancellation: true, noiseSuppression: true, autoGainControl: true } };
      const [track] = (await navigator.mediaDevices.getUserMedia(constraints)).getAudioTracks();
      if (this.#send !== call) {
        track.stop();
        return false;
      }
      track.onended = () => this.#onUnplugged();
      this.#track = track;
      return true;
    } catch (error) {
      this.#held = false;
      const words = PROBLEMS[error.name] ?? `The microphone does not work: ${error.message}`;
      if (this.#send === call) this.#say(words, true);
      return false;
    } finally {
      this.#opening = false;
    }
  }

  #onUnplugged() {
    this.#release();
    this.#track = null;
    this.#say("The microphone is gone. Hold the button to try again.", true);
  }

  #show(talking, words) {
    this.#button.setAttribute("aria-pressed", String(talking));
    this.#button.querySelector("span").textContent = talking ? "Talking…" : "Hold to talk";
    this.#say(words);
    this.#send(talking ? this.#track : null);
  }

  #sayHowTo() {
    this.#say("Hold the button while you speak.");
  }

  #say(words, isProblem = false) {
    this.#hint.textContent = words;
    this.#hint.dataset.problem = String(isProblem);
  }
}
