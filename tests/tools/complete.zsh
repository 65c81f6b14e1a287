# Prints what zsh offers at the end of a line, in one line: complete.zsh FOLDER_OF_COMPLETION LINE
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PROMPT=; fpath=(${(q)1} \$fpath); autoload -Uz compinit; compinit -D -u
offered=()
compadd() {
    local -a matches
    builtin compadd -O matches \"\$@\"
    offered+=(\$matches)
}
show() { print -r -- \$'\\x02'\${(j: :)\${(u)offered}}\$'\\x03'; exit }
comppostfuncs=(show)
bindkey '^I' complete-word"
zpty -w -n shell "$2"$'\t'
zpty -r -m shell output $'*\x02*\x03*'
zpty -d shell
output=${output##*$'\x02'}
print -r -- ${output%%$'\x03'*}
