# shellcheck shell=dash
# The same tools on the same trees with extended coverage, which sees more calls and keeps events of files that are gone.
# seconds: 540
COVERAGE=true
. /scenario/everyday_trees.sh
