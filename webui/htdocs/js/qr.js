// Pictures of short texts that a phone's camera reads: QR codes of versions 3 to 6 with the lowest correction, bytes only.

/** By version: signs of the text, correction bytes of a block, blocks, the middle of the mark at the lower right. */
const VERSIONS = [
  { version: 3, data: 55, correction: 15, blocks: 1, mark: 22 },
  { version: 4, data: 80, correction: 20, blocks: 1, mark: 26 },
  { version: 5, data: 108, correction: 26, blocks: 1, mark: 30 },
  { version: 6, data: 136, correction: 18, blocks: 2, mark: 34 },
];
const BYTES = 4;
const PADDING = [0xec, 0x11];
/** Level L with mask 0, protected by its own code. */
const FORMAT = 0b111011111000100;
const MARGIN = 4;
const VECTOR = 'http://www.w3.org/2000/svg';

// Arithmetic of the field that the correction is computed in.
const POWERS = [];
const LOGS = [];
for (let i = 0, x = 1; i < 255; i += 1) {
  POWERS[i] = x;
  LOGS[x] = i;
  x <<= 1;
  if (x > 255) x ^= 0x11d;
}
const times = (a, b) => (a && b ? POWERS[(LOGS[a] + LOGS[b]) % 255] : 0);

function correctionOf(data, count) {
  let divisor = [1];
  for (let i = 0; i < count; i += 1) {
    divisor = [...divisor, 0].map((value, at) => value ^ times(divisor[at - 1] ?? 0, POWERS[i]));
  }
  const rest = [...data, ...new Array(count).fill(0)];
  for (let i = 0; i < data.length; i += 1) {
    const factor = rest[i];
    for (let j = 0; j < divisor.length; j += 1) rest[i + j] ^= times(divisor[j], factor);
  }
  return rest.slice(data.length);
}

function dataOf(text, { data }) {
  let bits = BYTES.toString(2).padStart(4, '0') + text.length.toString(2).padStart(8, '0');
  for (const byte of text) bits += byte.toString(2).padStart(8, '0');
  bits += '0'.repeat(Math.min(4, data * 8 - bits.length));
  bits = bits.padEnd(Math.ceil(bits.length / 8) * 8, '0');
  const bytes = bits.match(/.{8}/g).map((part) => parseInt(part, 2));
  for (let i = 0; bytes.length < data; i += 1) bytes.push(PADDING[i % 2]);
  return bytes;
}

/** All bytes in the order in which they are drawn: the blocks' bytes in turn. */
function codewords(text, version) {
  const bytes = dataOf(text, version);
  const length = version.data / version.blocks;
  const blocks = Array.from({ length: version.blocks }, (_, i) => bytes.slice(i * length, (i + 1) * length));
  const inTurn = (parts) => parts[0].flatMap((_, at) => parts.map((part) => part[at]));
  return [...inTurn(blocks), ...inTurn(blocks.map((block) => correctionOf(block, version.correction)))];
}

/** A square of cells: true is dark, undefined is still free. */
function drawMarks({ version, mark }) {
  const size = 17 + 4 * version;
  const cells = Array.from({ length: size }, () => new Array(size));
  const set = (row, column, dark) => { if (cells[row] && column >= 0 && column < size) cells[row][column] = dark; };
  const rings = (row, column, reach, dark) => {
    for (let y = -reach; y <= reach; y += 1) {
      for (let x = -reach; x <= reach; x += 1) set(row + y, column + x, dark(Math.max(Math.abs(x), Math.abs(y))));
    }
  };
  for (let i = 0; i < size; i += 1) {
    set(6, i, i % 2 === 0);
    set(i, 6, i % 2 === 0);
  }
  for (const [row, column] of [[3, 3], [3, size - 4], [size - 4, 3]]) rings(row, column, 4, (far) => far !== 2 && far !== 4);
  rings(mark, mark, 2, (far) => far !== 1);
  drawFormat(set, size);
  return cells;
}

function drawFormat(set, size) {
  for (let i = 0; i < 15; i += 1) {
    const dark = (FORMAT >> i & 1) === 1;
    if (i < 6) set(i, 8, dark);
    else if (i < 8) set(i + 1, 8, dark);
    else set(size - 15 + i, 8, dark);
    if (i < 8) set(8, size - 1 - i, dark);
    else if (i === 8) set(8, 7, dark);
    else set(8, 14 - i, dark);
  }
  set(size - 8, 8, true);
}

/** Up and down in columns of two from the right, around what is drawn already; every other cell is turned over. */
function drawData(cells, bytes) {
  const size = cells.length;
  let at = 0;
  for (let right = size - 1, up = true; right > 0; right -= 2, up = !up) {
    if (right === 6) right = 5;
    for (let i = 0; i < size; i += 1) {
      const row = up ? size - 1 - i : i;
      for (const column of [right, right - 1]) {
        if (cells[row][column] !== undefined) continue;
        const bit = (bytes[at >> 3] ?? 0) >> (7 - at % 8) & 1;
        cells[row][column] = (bit === 1) !== ((row + column) % 2 === 0);
        at += 1;
      }
    }
  }
}

/** The cells of a text's code, row by row, true for dark; null for a text that is too long. */
export function qrCells(text) {
  const bytes = [...new TextEncoder().encode(text)];
  const version = VERSIONS.find(({ data }) => bytes.length + 2 <= data);
  if (!version) return null;
  const cells = drawMarks(version);
  drawData(cells, codewords(bytes, version));
  return cells;
}

/** The code as a picture; nothing to see for a text that is too long. */
export function qrPicture(text) {
  const cells = qrCells(text) ?? [];
  const picture = document.createElementNS(VECTOR, 'svg');
  const size = cells.length + 2 * MARGIN;
  picture.setAttribute('viewBox', `0 0 ${size} ${size}`);
  picture.setAttribute('aria-hidden', 'true');
  picture.classList.add('qr');
  const path = document.createElementNS(VECTOR, 'path');
  path.setAttribute('d', cells.flatMap((row, y) => row.map((dark, x) => (dark ? `M${x + MARGIN} ${y + MARGIN}h1v1h-1z` : ''))).join(''));
  picture.append(path);
  return picture;
}
