// What the probe's process holds.

export const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

const resources = (probe) => ({ descriptors: probe.descriptors(), threads: probe.threads() });

// What the process holds once nothing has changed for two seconds.
export async function settledResources(probe) {
  let last = resources(probe);
  for (let unchanged = 0; unchanged < 40; ++unchanged) {
    await pause(50);
    const now = resources(probe);
    if (now.descriptors !== last.descriptors || now.threads !== last.threads) unchanged = -1;
    last = now;
  }
  return last;
}
