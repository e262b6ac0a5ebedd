#!/usr/bin/env bash
# The man page and the completions list exactly the verbs and options of the tool's help. The bash completion
# completes identifiers.
# usage: fmcache_pages_test.sh FMCACHE BUILD_DIR
source "$(dirname "${BASH_SOURCE[0]}")/support_fmcache.sh"
page=$sources/docs/fmcache.1
zsh=$sources/tools/fmcache/completion/_fmcache

same() { diff -u "$1" <(sort "$2") || fail "$2: not the options of the help"; }
options() { "$fmcache" "$@" --help | grep -oE '^ +-[-a-z,]+' | tr -d ' ' | tr ',' '\n'; }

# Prints one line "VERB OPTION" for each option of a verb and each common option.
mapfile -t verbs < <("$fmcache" --help | tr -d '\r' | sed -n '/^Subcommands:/,$s/^  \([a-z]*\)  .*/\1/p')
mapfile -t shared < <(options)
for verb in "${verbs[@]}"; do
    options "$verb" | grep -vxE -- '-h|--help' | sed "s/^/$verb /" >>own.unsorted
    printf "$verb %s\n" "${shared[@]}" >>all.unsorted
done
sort own.unsorted >own
sort own.unsorted all.unsorted >all

# Of -o, --output the synopsis has only the short form; the list of options has both.
awk '/^\.Sh/ { on = /SYNOPSIS/ } /^\.Nm/ { verb = "" } on && /^\.Cm/ { verb = $2 }
    on && verb { for (i = 1; i < NF; i++) if ($i == "Fl" || $i == ".Fl") print verb, "-" $(i + 1) }' "$page" >man_page
echo "get --output" >>man_page
same own man_page
cut -d' ' -f2 all | sort -u | while read -r option; do
    grep -qE -- "^\.It .*\bFl ${option#-}( |$)" "$page" || fail "$option is not in the list of the man page"
done

# In the zsh completion, the text before the description of each option.
awk '/^    case \$words/ { on = 1 } on && /^        [a-z]+\)$/ { verb = substr($1, 1, length($1) - 1) }
    on && verb && /\[/ { sub(/\[.*/, ""); gsub(/\([^)]*\)|[^-a-z]/, " "); for (i = 1; i <= NF; i++) print verb, $i }' \
    "$zsh" >zsh_completion
same own zsh_completion
for option in "${shared[@]}"; do
    sed -n '/common=(/,/^    )/p' "$zsh" | grep -qE -- "['{,)]${option}[],}[]" || fail "$option is not completed in zsh"
done
diff -u <(printf '%s\n' "${verbs[@]}") <(sed -n "s/^        '\([a-z]*\):.*/\1/p" "$zsh") || fail "other verbs in zsh"

# The bash completion is called as a shell calls it.
# shellcheck source=/dev/null
source "$sources/tools/fmcache/completion/fmcache.bash"
complete_words() { COMP_WORDS=(fmcache "$@") COMP_CWORD=$#; _fmcache; }
complete_words ''
diff -u <(printf '%s\n' "${verbs[@]}") <(printf '%s\n' "${COMPREPLY[@]}") || fail "other verbs in bash"
for verb in "${verbs[@]}"; do
    complete_words "$verb" -
    printf "$verb %s\n" "${COMPREPLY[@]}" >>bash_completion
done
same all bash_completion

echo x >file
id=$("$fmcache" put --dir 'a cache' file)
complete_words show --dir 'a\ cache' "${id:1:3}"
[ "${COMPREPLY[*]}" = "${id:1:36}" ] || fail "identifiers: '${COMPREPLY[*]}'"
"$fmcache" show --dir 'a cache' "${COMPREPLY[0]}" >/dev/null || fail "the completed identifier is refused"
echo "all is well"
