// What happened so far, and waiting for what has not happened yet.

// Far beyond what anything here takes, for machines under load.
const kPatience = 60_000;

export class EventLog {
  items = [];
  #waiting = new Set();

  push(item) {
    this.items.push(item);
    for (const waiting of [...this.#waiting]) waiting();
  }

  // Calls take with every item, past and future, until the returned function is called.
  follow(take) {
    let next = 0;
    const look = () => {
      while (next < this.items.length) take(this.items[next++]);
    };
    this.#waiting.add(look);
    look();
    return () => this.#waiting.delete(look);
  }

  // The first item at index `from` or later that matches; rejects after `patience` milliseconds.
  find(matches, what, { from = 0, patience = kPatience } = {}) {
    return new Promise((resolve, reject) => {
      let next = from;
      const look = () => {
        for (; next < this.items.length; ++next) {
          if (!matches(this.items[next])) continue;
          stop();
          resolve(this.items[next]);
          return;
        }
      };
      const timer = setTimeout(() => {
        stop();
        reject(new Error(`${what} did not come within ${patience} ms`));
      }, patience);
      timer.unref(); // who waits for what nobody needs any more does not keep the process alive
      const stop = () => {
        clearTimeout(timer);
        this.#waiting.delete(look);
      };
      this.#waiting.add(look);
      look();
    });
  }

  // Waits until `count` items match, from index `from` on; returns them.
  async collect(count, matches, what, from = 0) {
    let seen = 0;
    await this.find((item) => matches(item) && ++seen === count, `${count} of: ${what}`, { from });
    return this.items.slice(from).filter(matches).slice(0, count);
  }
}
