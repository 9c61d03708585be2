import { parseArgs } from 'node:util';

// --build is the directory in which the benchmarks were built; defaults hold the further options, all of them text.
export function readOptions(defaults) {
  const options = { build: { type: 'string' }, only: { type: 'string' } };
  for (const [name, value] of Object.entries(defaults)) options[name] = { type: 'string', default: value };
  const { values } = parseArgs({ options });
  if (!values.build) throw new Error('say --build DIRECTORY');
  return values;
}
