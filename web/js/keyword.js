// What the search box sends while the user types and once they are done.

const OPERATORS = new Set(['AND', 'OR', 'NOT']);
// A bare word, optionally with a sign and a field prefix: `tele`, `-tele`,
// `name:tele`. Anything else (punctuation, a phrase, a wildcard) is sent as
// it was typed.
const BARE_WORD = /^[+-]?(?:(?:name|file|ext|content):)?([\p{L}\p{N}_]+)$/u;

// The keyword of a search made while typing: the text with `*` after its
// last word, so that the word being typed matches as a prefix, when that
// word is a bare word of at least 3 characters outside an open quote.
// Shorter stems would match too many words to be worth a search.
export function typingKeyword(text) {
  const trimmed = text.trim();
  if (trimmed === '' || /\s$/.test(text)) return trimmed;
  const quotes = (trimmed.match(/"/g) || []).length;
  if (quotes % 2 === 1) return trimmed;
  const words = trimmed.split(/\s+/);
  const last = words[words.length - 1];
  if (OPERATORS.has(last)) return trimmed;
  const match = BARE_WORD.exec(last);
  if (!match || [...match[1]].length < 3) return trimmed;
  return `${trimmed}*`;
}

// The keyword of the full search (Enter, or a pause): the text as typed.
export function fullKeyword(text) {
  return text.trim();
}
