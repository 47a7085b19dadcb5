// The settings that a page carries for its script: one assignment a line in a block that no browser executes.

const ASSIGNMENT = /^([A-Za-z_][A-Za-z0-9_]*)=(?:"((?:[^"\\]|\\["\\bfnrt])*)"|(-?[0-9]+)|(true|false))\r?$/gm;
const ESCAPES = { b: '\b', f: '\f', n: '\n', r: '\r', t: '\t' };

/**
 * Reads the assignments of a text: quoted texts, whole numbers, true and false. Anything else is passed over, and the
 * first assignment of a name counts: what a user typed stands last in the block and cannot override what comes before.
 */
export function parsePageVariables(text) {
  const variables = new Map();
  for (const [, name, quoted, number, truth] of text.matchAll(ASSIGNMENT)) {
    if (variables.has(name)) continue;
    if (quoted !== undefined) variables.set(name, quoted.replace(/\\(.)/g, (_, c) => ESCAPES[c] ?? c));
    else if (number !== undefined) variables.set(name, Number(number));
    else variables.set(name, truth === 'true');
  }
  return variables;
}

/** The variables of a page; none when it carries no block. */
export function readPageVariables(page = document) {
  return parsePageVariables(page.getElementById('page-variables')?.textContent ?? '');
}
