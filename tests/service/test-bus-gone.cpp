/* The bus goes away and comes back: nothing accepted is lost, nothing waits for ever. The test runs its own bus,
   because the session's must live on. */
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "bus-loop.h"
#include "host-test.h"

namespace {

std::string folder, address;

pid_t start(std::vector<const char *> command) {
  command.push_back(nullptr);
  pid_t pid = 0;
  EXPECT_EQ(0, posix_spawnp(&pid, command[0], nullptr, nullptr, const_cast<char **>(command.data()), environ));
  return pid;
}

void stop(pid_t pid, int signal) {
  int status = 0;
  EXPECT_EQ(0, kill(pid, signal));
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
}

pid_t start_bus(void) {
  std::filesystem::remove(folder + "/bus");
  const pid_t pid = start({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address", address.c_str()});
  EXPECT_TRUE(run_until([] { return std::filesystem::exists(folder + "/bus"); }));
  return pid;
}

bool service_is_there(void) {
  sd_bus *bus = nullptr;
  const bool there =
      sd_bus_open_user(&bus) >= 0 && sd_bus_get_name_creds(bus, "com.vextora.brisel.Host", 0, nullptr) >= 0;
  sd_bus_flush_close_unref(bus);
  return there;
}

int waiting(void) {
  const std::string count = query("SELECT count(*) FROM outbox");
  return count.empty() ? -1 : std::stoi(count);
}

TEST(BusGone, NothingAcceptedIsLostAndNothingWaitsForEver) {
  pid_t bus = start_bus();
  pid_t service = start({"brisel-hostd"});
  ASSERT_TRUE(run_until(service_is_there));
  EXPECT_EQ(0, brisel_db_init());
  EXPECT_EQ(0, brisel_ipc_client_init());
  EXPECT_EQ(0, send_delete(1));
  ASSERT_TRUE(run_until([] { return waiting() == 1; }));

  /* Accepted while the service stands still, then the bus goes, and with it the service. */
  EXPECT_EQ(0, kill(service, SIGSTOP));
  EXPECT_EQ(0, send_delete(2));
  EXPECT_EQ(0, send_delete(3));
  struct answer {
    int count, error;
  } more = {0, 0};
  more_msg_req_data *request = brisel_more_msg_req_data_create();
  request->mail_id = 1;
  EXPECT_EQ(0, brisel_ipc_req_more_msg(
                   request,
                   [](void *response, int error, void *data) {
                     EXPECT_EQ(nullptr, response);
                     *static_cast<answer *>(data) = {1, error};
                   },
                   &more));
  stop(bus, SIGKILL);
  ASSERT_TRUE(run_until([&] { return more.count == 1; }));
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, more.error);
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, brisel_ipc_req_more_msg(request, nullptr, nullptr));
  /* What is asked while there is no bus waits in the file. */
  EXPECT_EQ(0, send_delete(4));
  brisel_more_msg_req_data_free(request);
  int count = -1;
  EXPECT_EQ(0, brisel_db_get_all_account_count(&count)); /* reading needs no bus */
  EXPECT_EQ(0, kill(service, SIGCONT));
  int status = 0;
  EXPECT_EQ(service, waitpid(service, &status, 0)); /* ends by itself: the next bus starts its own */
  EXPECT_TRUE(WIFEXITED(status));

  bus = start_bus();
  service = start({"brisel-hostd"});
  ASSERT_TRUE(run_until([&] { return waiting() == 4; }));
  EXPECT_EQ(0, send_delete(5));
  ASSERT_TRUE(run_until([&] { return waiting() == 5; }));

  EXPECT_EQ(0, brisel_ipc_client_deinit());
  EXPECT_EQ(0, brisel_db_deinit());
  stop(service, SIGTERM);
  bus_loop_shutdown();
  stop(bus, SIGTERM);
}

TEST(BusGone, WithoutABusRequestsWaitAndTheServiceSaysSo) {
  const std::string file = std::string(platform_app_state_dir()) + "/requests";
  EXPECT_EQ(BRISEL_COMMON_ERROR_LINK, brisel_ipc_client_init());
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(0, send_delete(1));
  EXPECT_GT(std::filesystem::file_size(file), 0u);
  EXPECT_EQ(0, brisel_ipc_client_event_subscribe(
                   0, [](brisel_ipc_event *, void *, void *) {}, nullptr));
  EXPECT_EQ(0, brisel_ipc_client_deinit());
  const pid_t service = start({"brisel-hostd"});
  int status = 0;
  EXPECT_EQ(service, waitpid(service, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  char name[] = "/tmp/brisel-bus-XXXXXX";
  folder = mkdtemp(name);
  address = "unix:path=" + folder + "/bus";
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  setenv("ECORE_NO_SYSTEM_MODULES", "1", 1); /* they would talk to the machine's own bus */
  ecore_init();
  const int result = RUN_ALL_TESTS();
  ecore_shutdown();
  std::filesystem::remove_all(folder);
  return result;
}
