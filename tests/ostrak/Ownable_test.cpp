#include "ostrak/Ownable.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using Ostrak::StrongPtr;

namespace {

class Book : public Ostrak::Ownable<Book> {};

class Shelf : public Ostrak::Ownable<Book>::Container {
 public:
  explicit Shelf(std::string name) : name(std::move(name)) {}
  void extremeUnction() override {
    if (onUnction) onUnction(this);
  }
  std::string name;
  std::function<void(Shelf*)> onUnction;
};

std::vector<std::string> ownerNames(const Book& book) {
  std::vector<std::string> names;
  for (const auto* entry = book.owners(); entry; entry = entry->next.get()) {
    auto shelf = Ostrak::dynamic_pointer_cast<Shelf>(entry->owner);
    names.push_back(shelf ? shelf->name : "(gone)");
  }
  return names;
}

}  // namespace

TEST(Ownable, OwnersAreListedOnceInInsertionOrderAndCopiesStartWithout) {
  StrongPtr<Shelf> a(new Shelf("a")), b(new Shelf("b")), c(new Shelf("c"));
  Book book;
  EXPECT_TRUE(book.addOwner(*a) && book.addOwner(*b) && book.addOwner(*c));
  EXPECT_FALSE(book.addOwner(*a));
  EXPECT_TRUE(book.removeOwner(*b));
  EXPECT_FALSE(book.removeOwner(*b) || book.isOwnedBy(*b));
  EXPECT_TRUE(book.addOwner(*b));
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"a", "c", "b"}));
  EXPECT_EQ(a.strongCount(), 1) << "the list holds its owners weakly";
  Book copy(book);
  EXPECT_EQ(copy.owners(), nullptr);
  copy.addOwner(*b);
  copy = book;
  EXPECT_EQ(ownerNames(copy), (std::vector<std::string>{"b"}));
}

TEST(Ownable, FirstLiveOwnerSkipsDeadOwnersButNotDyingOnes) {
  StrongPtr<Shelf> a(new Shelf("a")), b(new Shelf("b")), c(new Shelf("c"));
  Book book;
  for (const StrongPtr<Shelf>& shelf : {a, b, c}) book.addOwner(*shelf);
  a.reset();
  EXPECT_TRUE(book.firstLiveOwner() == b);
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"(gone)", "b", "c"}));
  bool sawItself = false;  // an owner in its last rites is still alive for what it owns
  b->onUnction = [&](Shelf* self) { sawItself = book.firstLiveOwner().get() == self; };
  b.reset();
  EXPECT_TRUE(sawItself);
  EXPECT_TRUE(book.firstLiveOwner() == c);
  c.reset();
  EXPECT_FALSE(book.firstLiveOwner());
}
