# Shorthands for the two commands in README.md.
.PHONY: demo test bench
demo:
	bash scripts/demo.sh
test:
	bash scripts/test.sh
bench:
	cmake --preset release >/dev/null && cmake --build --preset release --target bench
