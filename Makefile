# ZEL: make run starts the demo instrument, make test runs every test.
BUILD      ?= build
PORT       ?= 8080
DATA_ROOT  ?= $(CURDIR)/run
CONFIG     ?= examples/demo.xml
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)

.PHONY: all setup build run test bench install clean test-asan test-tsan fuzz test-armhf

all: build

setup:
	@scripts/setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@mkdir -p $(DATA_ROOT)/config $(DATA_ROOT)/web $(DATA_ROOT)/io
	@cp -r web/. $(DATA_ROOT)/web/
	@echo "ZEL: the operator page will be at http://localhost:$(PORT)/ (another port: make run PORT=8081)"
	$(BUILD)/zel --config $(CURDIR)/$(CONFIG) --data-root $(DATA_ROOT) \
	  --pid-file $(DATA_ROOT)/zel.pid --io-mount $(DATA_ROOT)/io --port $(PORT)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

bench: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS) --target zel zel_bench
	$(BUILD)/zel_bench

install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)
	install -d $(DESTDIR)$(PREFIX)/lib/systemd/system
	sed 's|/usr/local/bin/zel|$(PREFIX)/bin/zel|' packaging/zel.service > $(DESTDIR)$(PREFIX)/lib/systemd/system/zel.service

clean:
	rm -rf $(BUILD)

# Quality gates (docs/quality-gates.md): each builds in a folder of its own.
test-asan: setup
	JOBS=$(JOBS) scripts/test-sanitized.sh address,undefined build-asan

test-tsan: setup
	JOBS=$(JOBS) scripts/test-sanitized.sh thread build-tsan

# The gate's own tools; if they cannot be installed, the gate says what is missing.
fuzz:
	-@scripts/setup.sh fuzz
	JOBS=$(JOBS) scripts/fuzz.sh

test-armhf:
	-@scripts/setup.sh armhf
	JOBS=$(JOBS) scripts/test-armhf.sh
