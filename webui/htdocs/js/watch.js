// Asking for something again and again while the page is seen.

/**
 * Calls ask() now, `seconds()` after each answer, and at once when the page is seen again; never while it is hidden and
 * never twice at a time. Ends when ask() returns false.
 */
export function watch(ask, seconds) {
  let timer = 0;
  let asking = false;
  async function run() {
    clearTimeout(timer);
    if (asking || document.hidden) return;
    asking = true;
    let goOn;
    try {
      goOn = await ask();
    } finally {
      asking = false;
      if (goOn === false) document.removeEventListener('visibilitychange', run);
      else timer = setTimeout(run, seconds() * 1000);
    }
  }
  document.addEventListener('visibilitychange', run);
  run();
}
