# shellcheck shell=dash
# The same tools on the same trees with extended coverage, which sees more calls and keeps events of files that are gone.
COVERAGE=true
. /scenario/everyday_trees.sh
