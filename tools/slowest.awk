# ./test --slowest: the twenty tests of the last run (results.xml, as ctest writes it) that took longest.
/<testcase / {
    name = time = $0
    sub(/.* name="/, "", name)
    sub(/".*/, "", name)
    sub(/.* time="/, "", time)
    sub(/".*/, "", time)
    print time, name | "sort -rn | head -n 20 | awk '{ printf \"%7.1f s  %s\\n\", $1, $2 }'"
}
