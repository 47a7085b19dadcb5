// How hard a password is to guess, roughly: by how many signs it has of which kinds, less what people do by habit.

const KINDS = [[/[a-z]/, 26], [/[A-Z]/, 26], [/\d/, 10], [/[^a-zA-Z\d]/, 33]];
const HABITS = /password|passwort|passw0rd|admin|keldra|welcome|letmein|qwert|asdf|abc|1234|2345|4567|6789|0000|1111|(19|20)\d\d/gi;
const FAIR = 45;
const GOOD = 65;

/** Bits of chance in a password, at most. */
function bitsOf(password) {
  const plain = password.replace(HABITS, '*').replace(/(.)\1+/g, '$1');
  const signs = KINDS.reduce((sum, [kind, count]) => sum + (kind.test(plain) ? count : 0), 0);
  return [...plain].length * Math.log2(Math.max(signs, 1));
}

/** "weak", "fair" or "good"; nothing for no password. */
export function strengthOf(password) {
  if (!password) return '';
  const bits = bitsOf(password);
  if (bits < FAIR) return 'weak';
  return bits < GOOD ? 'fair' : 'good';
}
