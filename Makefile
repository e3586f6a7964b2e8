# Thin commands over meson; each does all of its own set-up.
#   make build | run [SIZE=WxH] [MAIL=path] | pair-demo | post-demo [SIZE=WxH] | test | bench | check | sanitize | crash [ROUNDS=N] | faults | screens | install | deb
BUILD ?= build
SIZE ?= 320x320
MAIL ?=
LANGUAGE_SHOWN ?= en
THEME ?= dark
DESTDIR ?=
MESON_FLAGS ?=
ROUNDS ?= 2000

.PHONY: all build run pair-demo post-demo test bench check sanitize crash faults screens references install deb packages clean

all: build

packages:
	@tools/install-packages

$(BUILD)/build.ninja: | packages
	meson setup $(BUILD) --prefix=/usr $(MESON_FLAGS)

build: packages $(BUILD)/build.ninja
	ninja -C $(BUILD)

run: build
	@tools/run-demo $(BUILD) $(SIZE) $(MAIL)

# An account on a real server, set up as a user would, on the watch.
post-demo: build
	@tools/post-demo --build $(BUILD) --size $(SIZE)

# A phone and a watch on two machines, and what happens when the way between them fails.
pair-demo: build
	@tools/pair-demo $(BUILD)

test: build
	@tests/run-tests $(BUILD)

bench: build
	@bench/run-bench $(BUILD)

check: build
	@tests/run-checks $(BUILD)

# The whole suite under AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer, in its own build folder.
sanitize: packages
	@[ -f build-sanitize/build.ninja ] || meson setup build-sanitize --prefix=/usr -Db_sanitize=address,undefined -Db_lundef=false -Dbuildtype=debug
	ninja -C build-sanitize
	@tests/run-tests build-sanitize

# The crash test at length: ends the service, the relay and a reader at ROUNDS random points.
crash: build
	@BRISEL_CRASH_ROUNDS=$(ROUNDS) meson test -C $(BUILD) --no-rebuild --verbose --timeout-multiplier 20 phone-crash

# Every fault at every step that any file is written in: the stores, contacts, settings and kept requests in process, then
# the relay and the service as they are. Each test says how many it outlived. FAULT_STRIDE=N tries every Nth of the latter.
FAULT_STRIDE ?= 1
faults: build
	@BRISEL_EVERY_FAULT=1 BRISEL_PATIENCE=90 BRISEL_FAULT_STRIDE=$(FAULT_STRIDE) meson test -C $(BUILD) --no-rebuild --verbose \
	  --timeout-multiplier 60 faults service-store platform-settings platform-contacts faults-phone mime-fuzz imap-fuzz

# Every screen and state as a picture, in a language, theme and size.
screens: build
	@tools/screens --build $(BUILD) --out $(BUILD)/screens --size $(SIZE) --language $(LANGUAGE_SHOWN) --theme $(THEME)

# Renews the committed reference pictures from the screens as they are now.
references: build
	@tests/screens/renew $(BUILD)

install: build
	DESTDIR=$(DESTDIR) meson install -C $(BUILD) --no-rebuild

deb: packages
	@data/packaging/build-deb

clean:
	rm -rf $(BUILD) build-sanitize
