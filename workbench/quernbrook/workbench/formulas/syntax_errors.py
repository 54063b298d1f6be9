"""What the grammar expected where a text doesn't follow it."""

from __future__ import annotations

from lark import UnexpectedInput, UnexpectedToken
from quernbrook.workbench.formulas.errors import FormulaError

# The terminals of the grammar in words; all others stand for one sign.
_WORDS = {
    "$END": "the end of the formula",
    "NUMBER": "a number",
    "STRING": "a text in quotes",
    "NAME": "a name",
}
_BINARY_SIGNS = {
    "OR": "||",
    "AND": "&&",
    "EQUALITY": "==",
    "COMPARISON": "<",
    "PLUS": "+",
    "MINUS": "-",
    "TIMES": "*",
    "OVER": "/",
    "CARET": "^",
    "QMARK": "?",
    "AT": "@",
}
_OTHER_SIGNS = {
    "NOT": "!",
    "LPAR": "(",
    "RPAR": ")",
    "LSQB": "[",
    "RSQB": "]",
    "LBRACE": "{",
    "RBRACE": "}",
    "COMMA": ",",
    "COLON": ":",
    "SEMICOLON": ";",
    "EQUAL": "=",
}
_SIGNS = _BINARY_SIGNS | _OTHER_SIGNS
_STARTS_OF_OPERANDS = {"NUMBER", "STRING", "NAME", "LPAR", "MINUS", "NOT"}


def syntax_error(error: UnexpectedInput, text: str) -> FormulaError:
    if isinstance(error, UnexpectedToken):
        expected = _expectations(set(error.accepts or error.expected))
        if error.token.type == "$END":
            place = len(text.rstrip())
            return FormulaError(f"expected {expected}; the formula ends here", text, place)
        place = error.token.start_pos or 0
        return FormulaError(f"expected {expected}; got '{error.token}'", text, place)
    place = error.pos_in_stream or 0
    if text[place] == '"':
        return FormulaError("the text has no closing quote in its line", text, place)
    return FormulaError(f"{text[place]!r} has no meaning here", text, place)


def _expectations(terminals: set[str]) -> str:
    words = []
    if terminals >= _STARTS_OF_OPERANDS:
        terminals -= _STARTS_OF_OPERANDS
        words.append("an operand")
    # A comparison takes no second one; then the signs are told one by one.
    if terminals >= _BINARY_SIGNS.keys():
        terminals -= _BINARY_SIGNS.keys()
        words.append("an operator")
    words += sorted(f"'{_SIGNS[name]}'" for name in terminals if name in _SIGNS)
    words += sorted(_WORDS[name] for name in terminals if name in _WORDS)
    return words[0] if len(words) == 1 else f"{', '.join(words[:-1])} or {words[-1]}"
