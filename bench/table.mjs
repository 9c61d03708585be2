// Figures side by side, with what they must keep.
export class Table {
  missed = false;
  #rows = [];

  constructor(columns) {
    this.columns = columns;
  }

  // A figure that was not measured is null or undefined.
  row(what, figures, digits) {
    this.#rows.push([what, ...this.columns.map((_, i) => figures[i]?.toFixed(digits) ?? ''), '']);
  }

  // What the last row's first figure must not exceed.
  limit(figure, most, words) {
    const isKept = figure <= most;
    this.missed ||= !isKept;
    this.#rows.at(-1)[this.columns.length + 1] = isKept ? words : `${words}: MISSED`;
  }

  print() {
    const lines = [['', ...this.columns, 'limit'], ...this.#rows];
    const widths = lines[0].map((_, i) => Math.max(...lines.map((line) => line[i].length)));
    for (const line of lines) {
      console.log(line.map((cell, i) => (i === 0 ? cell.padEnd(widths[i]) : cell.padStart(widths[i]))).join('  ').trimEnd());
    }
  }
}
