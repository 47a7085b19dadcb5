// Which folders are scanned and which inside them are left out, by two lists of paths.

const below = (path, folder) => path === folder || path.startsWith(folder === '/' ? '/' : `${folder}/`);
const holds = (list, path) => list.some((folder) => below(path, folder));

/** `scanned` and `excluded`: absolute paths without a slash at the end. */
export class FolderChoice {
  constructor(scanned, excluded) {
    this.scanned = [...scanned];
    this.excluded = [...excluded];
  }

  /** Whether the files of a folder are scanned. Left out counts more than scanned, whichever lies deeper. */
  isScanned(path) {
    return holds(this.scanned, path) && !holds(this.excluded, path);
  }

  /** Whether a folder above this one is left out, so that nothing here can be chosen. */
  isLocked(path) {
    return holds(this.excluded.filter((folder) => folder !== path), path);
  }

  /** Whether something inside the folder is treated differently from the folder itself. */
  isMixed(path) {
    const inside = (folder) => folder !== path && below(folder, path);
    return this.isScanned(path) ? this.excluded.some(inside) : this.scanned.some(inside);
  }

  /** Scans a folder with all inside, or does not. */
  set(path, wanted) {
    const outside = (folder) => !below(folder, path);
    this.scanned = this.scanned.filter(outside);
    this.excluded = this.excluded.filter(outside);
    if (this.isScanned(path) === wanted) return;
    (wanted ? this.scanned : this.excluded).push(path);
  }

  /** Takes a path off both lists. */
  remove(path) {
    this.scanned = this.scanned.filter((folder) => folder !== path);
    this.excluded = this.excluded.filter((folder) => folder !== path);
  }
}
