// Lists of paths and patterns as the service takes them: ";" between the entries, a backslash before a ";" or backslash
// that belongs to one.
export const joinPathList = (entries) => entries.map((entry) => entry.replace(/[\\;]/g, '\\$&')).join(';');

export function splitPathList(text) {
  const entries = text.match(/(?:\\.|[^\\;])+/gs) ?? [];
  return entries.map((entry) => entry.replace(/\\(.)/gs, '$1'));
}
