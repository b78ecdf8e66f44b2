#pragma once

class Mistakes;
class Session;
struct Plan;

/// Changes the database as the plan says, with the functions of sql/functions.sql, within the
/// session's transaction. Sets the ids of what is added. What the database refuses is added to
/// `mistakes`; then the transaction can only be rolled back. Throws Failure for anything else.
void carryOut(Session& session, Plan& plan, Mistakes& mistakes);
