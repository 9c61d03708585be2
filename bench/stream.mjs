// Makes what the senders send: 5 s of 1280x720 H.264 at 20 frames a second and 2 Mbit/s, constrained baseline.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

const kFrames = 100;
const kFramesPerSecond = 20;

function encode(directory, name, rateOptions) {
  const file = path.join(directory, `${name}.h264`);
  if (fs.existsSync(`${file}.sizes`)) return file;
  const frames = fs.mkdtempSync(path.join(directory, 'frames-'));
  execFileSync('ffmpeg', ['-v', 'error',
    '-f', 'lavfi', '-i', `testsrc2=size=1280x720:rate=${kFramesPerSecond},noise=alls=12:allf=t`,
    '-frames:v', kFrames, '-pix_fmt', 'yuv420p', '-c:v', 'libx264', '-preset', 'veryfast', '-profile:v', 'baseline',
    '-sc_threshold', '0', '-x264-params', 'sliced-threads=0:slices=1', ...rateOptions,
    '-bsf:v', 'filter_units=remove_types=6', '-f', 'image2', path.join(frames, '%03d.h264')]);
  const units = fs.readdirSync(frames).sort().map((unit) => fs.readFileSync(path.join(frames, unit)));
  fs.writeFileSync(file, Buffer.concat(units));
  fs.writeFileSync(`${file}.sizes`, units.map((unit) => `${unit.length}\n`).join(''));
  fs.rmSync(frames, { recursive: true });
  return file;
}

const twoMegabits = ['-b:v', '2000k', '-maxrate', '2000k', '-bufsize', '1000k'];

export function makeStreams(directory) {
  fs.mkdirSync(directory, { recursive: true });
  return {
    // A key frame a second, whatever the viewers ask.
    fixed: encode(directory, 'fixed', ['-g', kFramesPerSecond, ...twoMegabits]),
    // No key frame but the first; and each frame as a key frame, to take its place when one is asked for.
    endless: encode(directory, 'endless', ['-g', '9999', ...twoMegabits]),
    keys: encode(directory, 'keys', ['-g', '1', '-crf', '38']),
  };
}
