#include "backup/exchange/core/ews/ews_client_pool.h"
#include "backup/exchange/core/ews/ews_restore_callback_factory.h"
#include "backup/exchange/core/ews/ews_restore_context.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
// Makes bare clients (no request is ever sent) and counts them.
EWS_Client_Pool::Maker counting_maker(std::atomic<int>& made)
{
  return [&made](EWS_Client_Ptr& client)
  {
    client.reset(new EWS_Client());
    ++made;
    return true;
  };
}

MTF::Error_Code upload(MTF::IRestore_Callback& callback, const std::string& path, const std::string& data)
{
  MTF::IFile_Writer_var writer = callback.make_file_writer();
  if (!writer || writer->open(path.c_str(), data.size()) != MTF::E_OK)
    return MTF::E_FAILED;
  return writer->write(data.data(), data.size());
}
}  // namespace

TEST(EwsClientPool, LendsAClientToOneBorrowerAtATimeAndKeepsItForTheNext)
{
  std::atomic<int> made{0};
  EWS_Client_Pool pool(counting_maker(made), 1);
  EWS_Client_Ptr a, b, c;
  ASSERT_TRUE(pool.borrow(a));
  ASSERT_TRUE(pool.borrow(b));
  EXPECT_NE(a.get(), b.get());
  EXPECT_EQ(made.load(), 2);
  pool.give_back(a);
  pool.give_back(b);  // beyond max_idle: dropped
  EXPECT_EQ(pool.idle(), 1u);
  ASSERT_TRUE(pool.borrow(c));
  EXPECT_EQ(c.get(), a.get());
  EXPECT_EQ(pool.idle(), 0u);
  EXPECT_EQ(made.load(), 2);

  // Given back twice, a client is still lent once.
  EWS_Client_Pool roomy(counting_maker(made), 4);
  roomy.give_back(c);
  roomy.give_back(c);
  EXPECT_EQ(roomy.idle(), 1u);
  EWS_Client_Ptr d, e;
  ASSERT_TRUE(roomy.borrow(d));
  ASSERT_TRUE(roomy.borrow(e));
  EXPECT_NE(d.get(), e.get());

  // A cancelled client is not lent again.
  d->cancel();
  roomy.give_back(d);
  EXPECT_EQ(roomy.idle(), 0u);

  // No client can be made: nothing to lend.
  EWS_Client_Pool broken([](EWS_Client_Ptr&) { return false; }, 1);
  EWS_Client_Ptr none;
  EXPECT_FALSE(broken.borrow(none));
}

TEST(EwsClientPool, ConcurrentBorrowersNeverShareAClient)
{
  std::atomic<int> made{0};
  EWS_Client_Pool pool(counting_maker(made), 4);
  std::mutex lock;
  std::map<EWS_Client*, int> holders;
  std::atomic<int> shared{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back(
      [&]
      {
        for (int i = 0; i < 500; ++i)
        {
          EWS_Client_Ptr client;
          if (!pool.borrow(client))
          {
            ++shared;
            continue;
          }
          {
            std::lock_guard<std::mutex> guard(lock);
            if (++holders[client.get()] != 1)
              ++shared;
          }
          std::this_thread::yield();
          {
            std::lock_guard<std::mutex> guard(lock);
            --holders[client.get()];
          }
          pool.give_back(client);
        }
      });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(shared.load(), 0);
  // A client is made only when none is idle, so never more than one per
  // borrower.
  EXPECT_LE(made.load(), 4);
  EXPECT_LE(pool.idle(), 4u);
}

TEST(EwsRestoreCallback, AWorkersWritersShareOneClientOneAtATime)
{
  Fake_Mailboxes boxes;
  EWS_Restore_Context_Ptr ctx(new EWS_Restore_Context());
  ctx->client_maker(boxes.maker());
  ASSERT_TRUE(ctx->init("svc", Secure_String("pw"), "bob@x.test", nullptr, nullptr));
  ASSERT_TRUE(ctx->create_target_folder(""));
  ctx->set_linux_paths();
  ASSERT_TRUE(ctx->mkdir_p("/anna%40x.test/Inbox"));
  EWS_Restore_Callback_Factory factory(ctx);
  MTF::IRestore_Callback_var worker = factory.make();
  ASSERT_TRUE(worker);

  // One writer after another: one client for all of them, every item uploaded.
  const int before = boxes.clients_made;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(upload(*worker, "/anna%40x.test/Inbox/item" + std::to_string(i), "item " + std::to_string(i)), MTF::E_OK);
  EXPECT_EQ(boxes.clients_made, before + 1);

  // Two writers alive at once each have a client of their own.
  MTF::IFile_Writer_var first = worker->make_file_writer();
  MTF::IFile_Writer_var second = worker->make_file_writer();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(boxes.clients_made, before + 2);
  ASSERT_EQ(first->open("/anna%40x.test/Inbox/a", 1), MTF::E_OK);
  ASSERT_EQ(second->open("/anna%40x.test/Inbox/b", 1), MTF::E_OK);
  EXPECT_EQ(second->write("b", 1), MTF::E_OK);
  EXPECT_EQ(first->write("a", 1), MTF::E_OK);
  first.reset();
  second.reset();

  // Another worker's callback does not take this one's client.
  MTF::IRestore_Callback_var other = factory.make();
  ASSERT_TRUE(other);
  EXPECT_EQ(upload(*other, "/anna%40x.test/Inbox/c", "c"), MTF::E_OK);
  EXPECT_EQ(boxes.clients_made, before + 3);

  std::vector<std::string> data;
  for (const Fake_Mailboxes::Uploaded_Item& item : boxes.uploaded)
  {
    data.push_back(item.data);
    EXPECT_EQ(item.mailbox, "bob@x.test");
  }
  EXPECT_EQ(data, (std::vector<std::string>{"item 0", "item 1", "item 2", "b", "a", "c"}));
}
