// Following work that goes on in the service: asks for the page's own address again and again and reads the answer.
import { BY_PAGE } from './api.js';
import { serviceAway, sessionEnded } from './draft.js';

const INTERVAL = 1000;
const LONGEST = 8000;
const PATIENCE = 15_000;

const pause = (milliseconds) => new Promise((resolve) => { setTimeout(resolve, milliseconds); });

/** Fetches a page without showing it. Nothing when there is no usable answer; the log-on page when the session ended. */
export async function fetchPage(url, headers = {}) {
  try {
    const answer = await fetch(url,
      { headers, credentials: 'same-origin', cache: 'no-store', signal: AbortSignal.timeout(PATIENCE) });
    if (answer.redirected) {
      if (!await serviceAway()) sessionEnded();
      return null;
    }
    return answer.ok ? new DOMParser().parseFromString(await answer.text(), 'text/html') : null;
  } catch {
    return null;
  }
}

/**
 * Calls show(page) with each answer that is the same kind of page as this one, missed() when there was none, and shows
 * the answer itself (how the work ended) as soon as it is another kind.
 */
export async function follow(show, missed) {
  let wait = INTERVAL;
  for (;;) {
    await pause(wait);
    const page = document.hidden ? undefined : await fetchPage(location.href, BY_PAGE);
    if (page === undefined) continue;
    if (page === null) {
      wait = Math.min(wait * 2, LONGEST);
      missed();
      continue;
    }
    wait = INTERVAL;
    if (page.body.dataset.page !== document.body.dataset.page) {
      location.reload();
      return;
    }
    show(page);
  }
}
