# An encrypted backup of the file with the users.
# shellcheck shell=bash disable=SC2034,SC2154

echo "The file with the users is saved in an archive with a pass phrase:"
echo "battery staple" >"$temp/phrase"
cp "$data/security.ini" "$temp/users.ini"
backup() {
    (cd "$temp" && outcome "$programs/settings-backup" --pass-phrase "$@")
}
step "settings-backup save" "$(backup phrase save backup users.ini)" "exit status 0: 1 saved"
step "settings-backup restore, and the file is the same" \
    "$(backup phrase restore backup restored); $(outcome cmp "$temp/users.ini" "$temp/restored/users.ini")" \
    "exit status 0: 1 restored; exit status 0"
refusal="exit status 1: settings-backup: the pass phrase is wrong or the archive was changed"
step "With another pass phrase" "$(backup users.ini restore backup refused)" "$refusal"
cp "$data/security.ini" "$desk"
chmod 644 "$desk/security.ini"
follow docs/guide/ciphers-and-keys.md 2 ""
echo "an image" >"$desk/image"
follow docs/guide/ciphers-and-keys.md 1 "exit status 0: *"
# The byte in the middle is replaced by another value.
size=$(stat -c %s "$temp/backup")
{
    head -c $((size / 2)) "$temp/backup"
    tail -c +$((size / 2 + 1)) "$temp/backup" | head -c 1 | tr '\000-\377' '\001-\377\000'
    tail -c +$((size / 2 + 2)) "$temp/backup"
} >"$temp/changed"
step "With a changed byte in the archive, nothing is written" \
    "$(backup phrase restore changed refused)$([ ! -e "$temp/refused" ] || echo ", but something was written")" "$refusal"
