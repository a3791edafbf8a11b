// The daemon's fragments are HTML-escaped text with the matches in
// <em>..</em>. Only those two exact tags become markup (a <mark>); the rest
// is decoded to text and added as text nodes, so nothing from a file's name
// or content can become an element, an attribute or script.

const ENTITIES = { '&amp;': '&', '&lt;': '<', '&gt;': '>', '&quot;': '"', '&#39;': "'" };

export function decodeEntities(text) {
  return text.replace(/&(?:amp|lt|gt|quot|#39);/g, (entity) => ENTITIES[entity]);
}

// The pieces of a fragment: [{text, marked}], in order.
export function fragmentPieces(fragment) {
  const pieces = [];
  let marked = false;
  for (const part of String(fragment).split(/(<em>|<\/em>)/)) {
    if (part === '<em>') marked = true;
    else if (part === '</em>') marked = false;
    else if (part !== '') pieces.push({ text: decodeEntities(part), marked });
  }
  return pieces;
}

// Appends the fragment to `parent` as text nodes and <mark> elements.
export function appendMarked(parent, fragment) {
  const doc = parent.ownerDocument;
  for (const piece of fragmentPieces(fragment)) {
    if (piece.marked) {
      const mark = doc.createElement('mark');
      mark.textContent = piece.text;
      parent.append(mark);
    } else {
      parent.append(doc.createTextNode(piece.text));
    }
  }
}
