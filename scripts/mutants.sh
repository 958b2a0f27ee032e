#!/usr/bin/env bash
# Mutation check: applies each deliberate fault in scripts/mutants/*.patch in
# turn, builds the preset the patch names, runs the tests it names, reports
# whether a test caught the fault, and reverts it. Nothing is ever committed.
#   scripts/mutants.sh [patch ...]     (default: every patch in the folder)
# A patch starts with a line describing the fault, then "preset: <preset>"
# and "tests: <ctest arguments>", then the diff.
# Exit status: the number of faults no test caught.
set -u
cd "$(dirname "$0")/.."
if ! git diff --quiet -- src include drivers; then
    echo "mutants: product code has uncommitted changes; commit or stash them first" >&2
    exit 100
fi
patches=("$@")
[ ${#patches[@]} -gt 0 ] || patches=(scripts/mutants/*.patch)
log=$(mktemp)
missed=0
for p in "${patches[@]}"; do
    name=$(basename "$p" .patch)
    preset=$(sed -n 's/^preset: //p' "$p" | head -n1)
    read -r -a tests <<<"$(sed -n 's/^tests: //p' "$p" | head -n1)"
    if ! git apply "$p"; then
        echo "$name: DOES NOT APPLY"
        missed=$((missed + 1))
        continue
    fi
    if ! cmake --build --preset "${preset:-native}" >"$log" 2>&1; then
        verdict="caught by the build"
    elif ctest --preset "${preset:-native}" "${tests[@]}" >"$log" 2>&1; then
        verdict="MISSED"
        missed=$((missed + 1))
    else
        failed=$(sed -n '/tests FAILED:/,$p' "$log" | sed -n 's/^.* - \(.*\) (.*$/\1/p' | paste -sd, -)
        verdict="caught by ${failed:-ctest}"
    fi
    git apply -R "$p"
    echo "$name: $verdict"
done
rm -f "$log"
echo "mutants: ${#patches[@]} applied, $missed missed (rebuild before using the build tree)"
exit "$missed"
