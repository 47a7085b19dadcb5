// Proof that a request comes from a page of this console: the token of a cookie that only its pages can read, sent back
// as a field.

/**
 * The token. Another program on this host can plant a cookie of the same name for a narrower path, which then comes first;
 * the console's programs take the last one, and so does this.
 */
export function csrfToken(cookies = document.cookie) {
  let token = '';
  for (const piece of cookies.split(';')) {
    const [name, value] = piece.trim().split('=', 2);
    if (name === 'CsrfToken') token = value ?? '';
  }
  return token;
}

/** Fills the token into every form at the moment it is sent, so that a page left open never sends an old one. */
export function fillTokensOnSubmit() {
  document.addEventListener('submit', (event) => {
    const field = event.target.elements.namedItem('CsrfToken');
    if (field) field.value = csrfToken();
  });
}

/** Sends fields to the program as a form would, with the token. */
export function post(fields) {
  return fetch('./scanoption.cgi', {
    method: 'POST',
    body: new URLSearchParams({ ...fields, CsrfToken: csrfToken() }),
    credentials: 'same-origin',
  });
}
