// What every page does: tokens into its forms, the current page marked in the navigation, nothing shown from memory
// after the session ended.
import { fillTokensOnSubmit } from './csrf.js';

fillTokensOnSubmit();

const current = document.querySelector(`nav a[data-section="${document.body.dataset.section}"]`);
if (current) {
  current.setAttribute('aria-current', 'page');
  const strip = current.closest('ul');
  if (strip.scrollWidth > strip.clientWidth) strip.scrollLeft = current.offsetLeft - strip.offsetLeft - 16;
}

document.getElementById('logoff')?.addEventListener('submit', () => sessionStorage.setItem('keldra-left', '1'));

// A page that the browser kept in memory is asked for again: the server decides whether it may still be seen.
window.addEventListener('pageshow', (event) => {
  if (event.persisted) location.reload();
});
