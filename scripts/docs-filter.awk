# Shows a public header to Doxygen as people read it: the comment that opens the file is the file's, one
# above a declaration or behind it is the declaration's, and overloads in a row share one. What is
# deleted or default, and destructors, are left out; a class without a comment is what the file is about.

function escaped(text) {
    gsub(/\\/, "\\\\", text)
    gsub(/&/, "\\&amp;", text)
    gsub(/</, "\\&lt;", text)
    gsub(/>/, "\\&gt;", text)
    gsub(/[@#%]/, "\\\\&", text)
    return text
}
function say_comment(lines) { if (lines != "") printf "%s", lines }
function name_of(text) {
    gsub(/<[^<>]*>/, "", text)
    if (!match(text, /[A-Za-z_~]+[A-Za-z_0-9]*[ ]*\(/)) return ""
    return substr(text, RSTART, RLENGTH - 1)
}
function count(text, letter) { return gsub(letter, letter, text) }
function end_declaration() {
    name = name_of(declaration)
    if (declaration ~ /= delete;|\) (noexcept )?= default;/ || name ~ /^~/ || declaration ~ / m_[A-Za-z]+( = [^;]*)?;/ && declaration !~ /\(/) {
        declaration = comment = ""
        return
    }
    if (comment == "" && name != "" && name == lastName) comment = lastComment
    if (comment == "" && declaration ~ /^(class|struct) [^;]*\{\n$/) comment = about
    say_comment(comment)
    printf "%s", declaration
    lastName = name
    lastComment = comment
    if (declaration ~ /\{[^{}]*\n$/ && declaration !~ /^[ \t]*(template[^\n]*\n?[ \t]*)?(inline )?(class|struct|enum|union|namespace|extern)/)
        body = count(declaration, "{") - count(declaration, "}")
    declaration = comment = ""
}

/^#pragma once/ { print; opening = 1; next }
body > 0 { # a function's
    body += count($0, "{") - count($0, "}")
    sub(/ *\/\/.*/, "")
    print
    next
}
/^[ \t]*\/\// && declaration == "" {
    if ($0 ~ /NOLINT/) next
    text = $0
    sub(/^[ \t]*\/\/ ?/, "", text)
    if (opening == 1) opening = 2
    comment = comment "/// " escaped(text) "\n"
    next
}
/^[ \t]*$/ {
    if (opening == 2) {
        say_comment("/// \\file\n" comment)
        about = comment
        opening = 0
    }
    comment = lastName = ""
    print
    next
}
/^#include/ { next }
isMacro || /^#define/ { # with the lines that it is continued on
    if (!isMacro) say_comment(comment)
    isMacro = /\\$/
    comment = lastName = ""
    print
    next
}
declaration == "" && /^[ \t]*(#|\}|public:|private:|protected:)/ {
    comment = lastName = ""
    sub(/ *\/\/.*/, "")
    print
    next
}
{
    line = $0
    sub(/^extern "C" /, "", line)
    behind = ""
    if (match(line, / *\/\/ /)) {
        behind = substr(line, RSTART + RLENGTH)
        line = substr(line, 1, RSTART - 1)
    } 
    if (behind != "" && behind !~ /^NOLINT/ && behind !~ /^namespace/) {
        line = line " ///< " escaped(behind)
    }
    declaration = declaration line "\n"
    sub(/ *\/\/\/<.*/, "", line)
    if (line ~ /[;{}]$/ || line ~ /,$/ && declaration !~ /\(/) end_declaration()
}
