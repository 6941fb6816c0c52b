// KEL for the editor: a stream tokenizer that colours keywords, types, numbers and named
// constants, comments (with the `// @input`, `// @param`, `// @output` declarations apart) and
// calls. The words are the language's own; a call is any name followed by "(", so the colours
// never lag behind the built-in functions.
import { StreamLanguage } from "@codemirror/language";

const KEYWORDS = new Set(["if", "else", "for", "while", "const", "input", "output"]);
const TYPES = new Set(["float", "color", "vec4", "image", "void"]);
const CONSTANTS = new Set(["M_PI", "M_E", "FLT_MAX", "FLT_MIN", "FLT_EPSILON"]);

function blockComment(stream, state) {
  while (!stream.eol()) {
    if (stream.match("*/")) {
      state.inComment = false;
      return "blockComment";
    }
    stream.next();
  }
  return "blockComment";
}

export const kel = StreamLanguage.define({
  name: "kel",
  startState: () => ({ inComment: false }),
  token(stream, state) {
    if (state.inComment) return blockComment(stream, state);
    if (stream.eatSpace()) return null;
    if (stream.match(/^\/\/\s*@(input|param|output)\b/)) {
      stream.skipToEnd();
      return "meta";
    }
    if (stream.match("//")) {
      stream.skipToEnd();
      return "lineComment";
    }
    if (stream.match("/*")) {
      state.inComment = true;
      return blockComment(stream, state);
    }
    if (stream.match(/^(\d+(\.\d*)?|\.\d+)/)) return "number";
    const word = stream.match(/^[A-Za-z_]\w*/);
    if (word) {
      const name = word[0];
      if (KEYWORDS.has(name)) return "keyword";
      if (TYPES.has(name)) return "typeName";
      if (CONSTANTS.has(name)) return "atom";
      return stream.match(/^\s*\(/, false) ? "variableName.function" : "variableName";
    }
    if (stream.match(/^(\+\+|--|[-+*\/]=|&&|\|\||[=!<>]=|[-+*\/=<>!])/)) return "operator";
    stream.next();
    return null;
  },
  languageData: { commentTokens: { line: "//", block: { open: "/*", close: "*/" } } },
});
